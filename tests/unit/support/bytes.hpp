// Byte strings of the tests.
#pragma once

#include <charconv>
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
  std::string digits(text);
  std::erase(digits, ' ');
  Bytes bytes;
  uint8_t value = 0;
  for (size_t i = 0; i + 1 < digits.size(); i += 2) {
    const char* const pair = &digits[i];
    if (std::from_chars(pair, pair + 2, value, 16).ptr != pair + 2) break;
    bytes.push_back(value);
  }
  return bytes;
}

inline Bytes from_text(std::string_view text) {
  return {text.begin(), text.end()};
}

inline Bytes operator+(Bytes left, const Bytes& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

inline Bytes slice(const Bytes& bytes, size_t from, size_t to) {
  return Bytes(bytes.begin() + static_cast<ptrdiff_t>(from), bytes.begin() + static_cast<ptrdiff_t>(to));
}

inline Bytes be(uint64_t value, size_t width) {
  Bytes bytes(width);
  for (size_t i = 0; i < width; ++i) bytes[i] = static_cast<uint8_t>(value >> (8 * (width - 1 - i)));
  return bytes;
}

inline uint32_t len(const Bytes& bytes) {
  return static_cast<uint32_t>(bytes.size());
}

// A result as text: the bytes written, or the code.
inline std::string text_of(int32_t rc, const Bytes& out) {
  return rc < 0 ? std::to_string(rc) : hex(out.data(), static_cast<size_t>(rc));
}

// A heap block of exactly these `n` bytes: the address sanitizer sees a read one byte too far.
inline Bytes exact_copy(const Bytes& bytes, size_t n) {
  return slice(bytes, 0, n);
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
