// Byte strings of the tests.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace test {

using Bytes = std::vector<uint8_t>;

inline std::string hex(const uint8_t* data, size_t len) {
  constexpr std::string_view digits = "0123456789abcdef";
  std::string text;
  for (size_t i = 0; i < len; ++i) {
    text.push_back(digits[data[i] >> 4]);
    text.push_back(digits[data[i] & 0x0F]);
  }
  return text;
}

// Anything with data() and size() of bytes.
template <typename Container>
std::string hex(const Container& bytes) {
  return hex(bytes.data(), bytes.size());
}

// Blanks between the digits are allowed; anything else that is no digit ends the bytes, so that a comparison
// fails.
inline Bytes from_hex(std::string_view text) {
  Bytes bytes;
  int high = -1;
  for (const char c : text) {
    if (c == ' ') continue;
    const bool is_digit = c >= '0' && c <= '9';
    const bool is_letter = (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
    if (!is_digit && !is_letter) break;
    const int value = is_digit ? c - '0' : (c | 0x20) - 'a' + 10;
    if (high < 0) {
      high = value;
    } else {
      bytes.push_back(static_cast<uint8_t>(high << 4 | value));
      high = -1;
    }
  }
  return bytes;
}

inline Bytes from_text(std::string_view text) {
  return {text.begin(), text.end()};
}

// A heap block of exactly these `n` bytes: the address sanitizer sees a read one byte too far.
inline Bytes exact_copy(const uint8_t* data, size_t n) {
  return Bytes(data, data + n);
}
inline Bytes exact_copy(const Bytes& bytes, size_t n) {
  return exact_copy(bytes.data(), n);
}

// The same of a text, with its NUL.
inline std::vector<char> exact_text(std::string_view text) {
  std::vector<char> copy(text.size() + 1);
  text.copy(copy.data(), text.size());
  return copy;
}

// The same bytes in every run.
inline Bytes random_bytes(std::mt19937& generator, size_t n) {
  Bytes bytes(n);
  for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(generator());
  return bytes;
}

}  // namespace test
