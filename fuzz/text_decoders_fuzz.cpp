// Everything that decodes text or scrambled bytes. The first byte of the input chooses a capacity, the rest
// is decoded; every buffer is a heap block of exactly the documented size.
#include "harness.hpp"
#include "util/base64.h"
#include "util/block_codec.h"
#include "util/byte_text.h"
#include "util/hex.h"

namespace {

using fuzz::Bytes;
using fuzz::require;

void decode_hex(const std::vector<char>& text) {
  const size_t len = std::strlen(text.data());
  Bytes bytes((len + 1) / 2);
  const uint32_t counted = hexStringToBytes(text.data(), bytes.data());
  require(counted == len / 2 || bytes.empty());

  Bytes again(bytes.size());
  std::vector<char> digits(2 * bytes.size() + 1);
  const auto num_bytes = static_cast<uint32_t>(bytes.size());
  require(bytesToHexString(bytes.data(), num_bytes, digits.data()) == 2 * num_bytes);
  require(scpHexStringToBytes(digits.data(), again.data()) == num_bytes && again == bytes);
}

// `n` characters of the text, which goes on at most to its NUL.
void decode_base64(const std::vector<char>& text, size_t n, size_t room) {
  const auto capacity = static_cast<int32_t>(room);
  Bytes bytes(room);
  const int32_t len = BASE64decode(text.data(), static_cast<int32_t>(n), bytes.data(), capacity);
  require(len >= 0 && static_cast<size_t>(len) <= std::min(room, (n + 3) / 4 * 3));

  Bytes again(room);
  std::vector<char> encoded(4 * ((room + 2) / 3) + 4);
  const int32_t encoded_len =
      scpBASE64encode(bytes.data(), len, encoded.data(), static_cast<int32_t>(encoded.size()));
  require(scpBASE64decode(encoded.data(), encoded_len, again.data(), capacity) == len);
  require(again == bytes);
}

// The key, then the blocks.
void decode_blocks(const Bytes& input) {
  constexpr size_t key_len = 8;
  if (input.size() < key_len) return;
  const Bytes key(input.begin(), input.begin() + key_len);
  const Bytes blocks(input.begin() + key_len, input.end());
  const auto num_bytes = static_cast<uint32_t>(blocks.size());
  Bytes plain(blocks.size());
  const int32_t len = tq1_decode(blocks.data(), num_bytes, key.data(), plain.data());
  require(len < 0 || static_cast<uint32_t>(len) <= num_bytes);

  Bytes encoded(blocks.size() + key_len - blocks.size() % key_len);
  const int32_t encoded_len = tq1_encode(blocks.data(), num_bytes, key.data(), encoded.data());
  require(static_cast<size_t>(encoded_len) == encoded.size());
  require(tq2_decode(encoded.data(), static_cast<uint32_t>(encoded_len), key.data(), encoded.data()) ==
          static_cast<int32_t>(num_bytes));
  require(std::equal(blocks.begin(), blocks.end(), encoded.begin()));
}

void read_number_and_trim(std::vector<char> text) {
  char digits[67] = "";
  const int32_t number = my_atoi(text.data());
  my_itoa(number, digits, 10);
  require(my_atoi(digits) == number);

  const char* const trimmed = my_trim(text.data());
  require(trimmed >= text.data() && trimmed < text.data() + text.size());
  const size_t len = std::strlen(trimmed);
  const auto is_blank = [](char c) { return c == ' ' || c == '\t'; };
  require(len == 0 || (!is_blank(trimmed[0]) && !is_blank(trimmed[len - 1])));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const Bytes input(data + 1, data + size);
  std::vector<char> text(input.begin(), input.end());
  text.push_back('\0');
  decode_hex(text);
  decode_blocks(input);
  read_number_and_trim(text);
  const size_t capacity = data[0] == 0xFF ? input.size() : data[0];
  for (size_t cut = 0; cut < 4 && cut <= input.size(); ++cut)
    decode_base64(text, input.size() - cut, capacity);
  return 0;
}
