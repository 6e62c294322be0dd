#include "core/config/text_checks.h"

#include <algorithm>
#include <cstring>
#include <span>

#include "util/byte_text.h"
#include "util/secret.hpp"

namespace {

// Bytes of this value and above are refused in texts.
constexpr uint8_t kFirstRefusedByte = 0x81;

// A private copy of a text with spaces and tabs cut off at both ends.
class TrimmedCopy {
 public:
  explicit TrimmedCopy(const char* text) : copy_(std::strlen(text) + 1) {
    if (!copy_) return;
    std::copy_n(text, copy_.size(), copy_.data());
    const char* trimmed = my_trim(reinterpret_cast<char*>(copy_.data()));
    bytes_ = {reinterpret_cast<const uint8_t*>(trimmed), std::strlen(trimmed)};
  }
  bool valid() const { return static_cast<bool>(copy_); }
  std::span<const uint8_t> bytes() const { return bytes_; }

 private:
  tq::ScratchBuffer copy_;
  std::span<const uint8_t> bytes_;
};

bool is_empty(const char* text) {
  return text == nullptr || *text == '\0';
}

bool is_letter_or_digit(uint8_t c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

bool is_plain(std::span<const uint8_t> bytes) {
  return std::none_of(bytes.begin(), bytes.end(), [](uint8_t b) { return b >= kFirstRefusedByte; });
}

// Copies the trimmed text when it is plain and not longer than `limit`; else returns `refusal`.
int32_t copy_plain_text(const char* text, char* out, size_t limit, int32_t refusal) {
  const TrimmedCopy trimmed(text);
  if (!trimmed.valid() || trimmed.bytes().size() > limit || !is_plain(trimmed.bytes())) return refusal;
  std::copy(trimmed.bytes().begin(), trimmed.bytes().end(), out);
  return TQ_OK;
}

}  // namespace

extern "C" {

int32_t appid_check(const char* text, uint8_t* out) {
  if (is_empty(text) || out == nullptr) return TQ_BAD_APPID;
  const TrimmedCopy trimmed(text);
  const std::span<const uint8_t> id = trimmed.bytes();
  if (id.size() != TQ_APPID_LENGTH || !std::all_of(id.begin(), id.end(), is_letter_or_digit))
    return TQ_BAD_APPID;
  std::copy(id.begin(), id.end(), out);
  return TQ_OK;
}

int32_t SN_check(const char* text, char* out) {
  if (is_empty(text)) return TQ_OK;
  if (out == nullptr) return TQ_BAD_SERIAL_NUMBER;
  return copy_plain_text(text, out, TQ_SERIAL_TEXT_MAX, TQ_BAD_SERIAL_NUMBER);
}

int32_t current_check(const char* text, char* out, uint32_t limit) {
  if (is_empty(text) || out == nullptr) return TQ_MISSING_CALL;
  return copy_plain_text(text, out, limit, TQ_OUT_OF_RANGE);
}

}  // extern "C"
