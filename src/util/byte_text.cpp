#include "util/byte_text.h"

#include <algorithm>
#include <cstring>

#include "util/text.hpp"

namespace {

constexpr char kNothing[] = "";
constexpr int32_t kMinRadix = 2;
constexpr int32_t kMaxRadix = 36;

}  // namespace

extern "C" {

void* tq_memcpy(void* dst, const void* src, uint32_t n) {
  if (dst != nullptr && src != nullptr && n != 0) std::memcpy(dst, src, n);
  return dst;
}

void* tq_memset(void* dst, uint8_t value, uint32_t n) {
  if (dst != nullptr && n != 0) std::memset(dst, value, n);
  return dst;
}

int32_t tq_memcmp(const void* a, const void* b, uint32_t n) {
  if (a == nullptr || b == nullptr) return -1;
  const auto* left = static_cast<const uint8_t*>(a);
  const auto* right = static_cast<const uint8_t*>(b);
  const auto [l, r] = std::mismatch(left, left + n, right);
  return l == left + n ? 0 : *l - *r;
}

uint32_t tq_strlen(const char* s) {
  return s == nullptr ? 0 : static_cast<uint32_t>(std::strlen(s));
}

int32_t tq_strcmp(const char* a, const char* b) {
  if (a == nullptr || b == nullptr) return -1;
  for (; *a != '\0' && *a == *b; ++a, ++b) {
  }
  return static_cast<uint8_t>(*a) - static_cast<uint8_t>(*b);
}

const char* tq_strstr(const char* haystack, const char* needle) {
  if (haystack == nullptr || needle == nullptr || *needle == '\0') return kNothing;
  const char* found = std::strstr(haystack, needle);
  return found == nullptr ? kNothing : found;
}

char* tq_strncpy(char* dst, const char* src, int32_t n) {
  if (dst == nullptr || src == nullptr) return dst;
  const size_t len = n > 0 ? strnlen(src, static_cast<size_t>(n)) : 0;
  std::memmove(dst, src, len);
  dst[len] = '\0';
  return dst;
}

int32_t my_toupper(int32_t character) {
  return character >= 'a' && character <= 'z' ? character - 'a' + 'A' : character;
}

int32_t my_atoi(const char* s) {
  if (s == nullptr) return 0;
  while (*s == ' ') ++s;
  const bool negative = *s == '-';
  if (*s == '-' || *s == '+') ++s;
  uint32_t magnitude = 0;
  for (; *s >= '0' && *s <= '9'; ++s) magnitude = magnitude * 10 + static_cast<uint32_t>(*s - '0');
  return static_cast<int32_t>(negative ? 0 - magnitude : magnitude);
}

char* my_trim(char* s) {
  if (s == nullptr) return s;
  const std::string_view kept = tq::trimmed(s);
  char* const start = s + (kept.data() - s);
  char* const end = start + kept.size();
  if (*end != '\0') *end = '\0';  // a text without trailing blanks may be read-only
  return start;
}

char* my_itoa(int64_t value, char* dst, int32_t radix) {
  if (dst == nullptr || radix < kMinRadix || radix > kMaxRadix) return dst;
  if (value == 0) {
    *dst = '0';
    return dst;
  }
  char* out = dst;
  if (value < 0) *out++ = '-';
  const uint64_t bits = static_cast<uint64_t>(value);
  uint64_t magnitude = value < 0 ? 0 - bits : bits;  // also right for the most negative value
  char* const digits = out;
  for (const auto base = static_cast<uint64_t>(radix); magnitude != 0; magnitude /= base) {
    *out++ = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ"[magnitude % base];
  }
  std::reverse(digits, out);
  *out = '\0';
  return dst;
}

}  // extern "C"
