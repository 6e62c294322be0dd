#include "util/hex.h"

#include <cstring>

#include "util/byte_text.h"

namespace {

constexpr char kDigits[] = "0123456789ABCDEF";

// The value of a digit; for any other character the same arithmetic, which decides the last byte of odd
// texts.
uint32_t lenient_digit_value(char character) {
  const auto code = static_cast<uint32_t>(my_toupper(static_cast<uint8_t>(character)));
  return code <= '9' ? code - '0' : code - ('A' - 10);
}

}  // namespace

extern "C" {

uint32_t hexStringToBytes(const char* hex, uint8_t* dst) {
  if (hex == nullptr || dst == nullptr) return 0;
  const size_t len = std::strlen(hex);
  for (size_t i = 0; i < len; i += 2) {
    dst[i / 2] = static_cast<uint8_t>((lenient_digit_value(hex[i]) << 4) | lenient_digit_value(hex[i + 1]));
  }
  return static_cast<uint32_t>(len / 2);
}

uint32_t bytesToHexString(const uint8_t* src, uint32_t n, char* dst) {
  if (src == nullptr || dst == nullptr) return 0;
  for (const uint8_t* const end = src + n; src != end; ++src) {
    *dst++ = kDigits[*src >> 4];
    *dst++ = kDigits[*src & 0x0F];
  }
  return 2 * n;
}

uint32_t scpHexStringToBytes(const char* hex, uint8_t* dst) {
  return hexStringToBytes(hex, dst);
}

uint32_t scpBytesToHexString(const uint8_t* src, uint32_t n, char* dst) {
  return bytesToHexString(src, n, dst);
}

}  // extern "C"
