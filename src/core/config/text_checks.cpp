#include "core/config/text_checks.h"

#include <algorithm>
#include <string_view>

#include "util/text.hpp"

namespace {

// Bytes of this value and above are refused in texts.
constexpr uint8_t kFirstRefusedByte = 0x81;

bool is_plain(std::string_view text) {
  return std::none_of(text.begin(), text.end(),
                      [](char c) { return static_cast<uint8_t>(c) >= kFirstRefusedByte; });
}

// Copies the trimmed text when it is plain and not longer than `limit`; else returns `refusal`.
int32_t copy_plain_text(const char* text, char* out, size_t limit, int32_t refusal) {
  const std::string_view kept = tq::trimmed(text);
  if (kept.size() > limit || !is_plain(kept)) return refusal;
  std::copy(kept.begin(), kept.end(), out);
  return TQ_OK;
}

}  // namespace

extern "C" {

int32_t appid_check(const char* text, uint8_t* out) {
  if (tq::is_empty(text) || out == nullptr) return TQ_BAD_APPID;
  const std::string_view id = tq::trimmed(text);
  if (id.size() != TQ_APPID_LENGTH || !std::all_of(id.begin(), id.end(), tq::is_letter_or_digit))
    return TQ_BAD_APPID;
  std::copy(id.begin(), id.end(), out);
  return TQ_OK;
}

int32_t SN_check(const char* text, char* out) {
  if (tq::is_empty(text)) return TQ_OK;
  if (out == nullptr) return TQ_BAD_SERIAL_NUMBER;
  return copy_plain_text(text, out, TQ_SERIAL_TEXT_MAX, TQ_BAD_SERIAL_NUMBER);
}

int32_t current_check(const char* text, char* out, uint32_t limit) {
  if (tq::is_empty(text) || out == nullptr) return TQ_MISSING_CALL;
  return copy_plain_text(text, out, limit, TQ_OUT_OF_RANGE);
}

}  // extern "C"
