// Texts inside the library: views, and what kind a character is. None of it depends on a locale.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string_view>

namespace tq {

inline bool is_empty(const char* text) {
  return text == nullptr || *text == '\0';
}

constexpr bool is_blank(char c) {
  return c == ' ' || c == '\t';
}

constexpr bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

constexpr bool is_letter_or_digit(char c) {
  return is_digit(c) || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

// The value of a hexadecimal digit of either case, 16 for any other character.
constexpr uint32_t hex_digit_value(char c) {
  if (is_digit(c)) return static_cast<uint32_t>(c - '0');
  if (c >= 'A' && c <= 'F') return static_cast<uint32_t>(c - 'A' + 10);
  return c >= 'a' && c <= 'f' ? static_cast<uint32_t>(c - 'a' + 10) : 16;
}

// The text without the spaces and tabs at both ends.
constexpr std::string_view trimmed(std::string_view text) {
  while (!text.empty() && is_blank(text.front())) text.remove_prefix(1);
  while (!text.empty() && is_blank(text.back())) text.remove_suffix(1);
  return text;
}

inline std::span<const uint8_t> as_bytes(std::string_view text) {
  return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

// Whether a text that came with its length would end early as a C string.
inline bool has_nul(std::span<const uint8_t> text) {
  return !text.empty() && std::memchr(text.data(), '\0', text.size()) != nullptr;
}

}  // namespace tq
