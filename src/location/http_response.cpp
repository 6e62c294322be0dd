#include "location/http_response.hpp"

#include <algorithm>

#include "core/result_code.h"
#include "util/byte_cursor.hpp"
#include "util/memory.h"
#include "util/secret.hpp"

namespace tq {
namespace {

constexpr std::string_view kLineEnd = "\r\n";
constexpr std::string_view kHeaderEnd = "\r\n\r\n";
constexpr std::string_view kEndMarker = "0\r\n\r\n";
constexpr size_t kLeastComplete = 6;
constexpr size_t kFirstCapacity = 2 * ResponseText::kLargestPiece;
constexpr size_t kLongestSizeLine = 8191;

// A letter's value is its place in the alphabet plus 10, beyond f as well; anything else is no digit.
bool chunk_digit(char c, size_t& value) {
  if (c >= '0' && c <= '9') {
    value = static_cast<size_t>(c - '0');
  } else if (c >= 'a' && c <= 'z') {
    value = static_cast<size_t>(c - 'a') + 10;
  } else if (c >= 'A' && c <= 'Z') {
    value = static_cast<size_t>(c - 'A') + 10;
  } else {
    return false;
  }
  return true;
}

// The number at the start of a chunk-size line, or something above `limit`.
size_t chunk_size(std::string_view line, size_t limit) {
  if (line.starts_with("0x") || line.starts_with("0X")) line.remove_prefix(2);
  size_t size = 0;
  size_t digit = 0;
  for (size_t i = 0; i < line.size() && size <= limit && chunk_digit(line[i], digit); ++i) {
    size = size * 16 + digit;
  }
  return size;
}

// Takes the chunk at the start of `rest`. False when it is malformed.
bool take_chunk(std::string_view& rest, std::string_view& data) {
  const size_t line_len = rest.substr(0, kLongestSizeLine).find(kLineEnd);
  if (line_len == std::string_view::npos) return false;
  const size_t size = chunk_size(rest.substr(0, line_len), rest.size());
  rest.remove_prefix(line_len + kLineEnd.size());
  if (size > rest.size()) return false;
  data = rest.substr(0, size);
  rest.remove_prefix(size);
  if (!rest.starts_with(kLineEnd)) return false;
  rest.remove_prefix(kLineEnd.size());
  return true;
}

}  // namespace

ResponseText::~ResponseText() {
  if (data_ == nullptr) return;
  wipe(data_, capacity_);
  tq_mem_free(data_);
}

bool ResponseText::grow() {
  const size_t capacity = capacity_ == 0 ? kFirstCapacity : 2 * capacity_;
  if (capacity > kLongest) return false;
  auto* larger = static_cast<uint8_t*>(tq_mem_malloc(capacity));
  if (larger == nullptr) return false;
  std::copy_n(data_, len_, larger);
  if (data_ != nullptr) {
    wipe(data_, capacity_);
    tq_mem_free(data_);
  }
  data_ = larger;
  capacity_ = capacity;
  return true;
}

std::span<uint8_t> ResponseText::room() {
  if (capacity_ - len_ < kLargestPiece && !grow()) return {};
  return {data_ + len_, kLargestPiece};
}

void ResponseText::add(size_t num_bytes) {
  const uint8_t* const piece = data_ + len_;
  len_ += static_cast<size_t>(std::find(piece, piece + num_bytes, uint8_t{0}) - piece);
}

bool ResponseText::complete() const {
  const std::string_view all = text();
  return all.size() >= kLeastComplete && all.ends_with(kEndMarker);
}

int32_t decode_chunked_body(std::string_view text, std::span<char> body) {
  const size_t end_marker = text.find(kEndMarker);
  if (end_marker == std::string_view::npos) return TQ_FAILED;
  // There is one: the marker ends like this, too.
  std::string_view rest = text.substr(text.find(kHeaderEnd) + kHeaderEnd.size());
  size_t len = 0;
  while (!rest.starts_with(kEndMarker)) {
    std::string_view data;
    if (!take_chunk(rest, data) || data.size() > body.size() - len) return TQ_FAILED;
    std::copy(data.begin(), data.end(), body.begin() + static_cast<ptrdiff_t>(len));
    len += data.size();
    if (text.size() - rest.size() > end_marker) return TQ_FAILED;
  }
  return static_cast<int32_t>(len);
}

}  // namespace tq
