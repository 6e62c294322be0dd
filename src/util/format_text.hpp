// Formatting into a given room.
#pragma once

#include <cstdarg>
#include <cstdio>
#include <span>

namespace tq {

// As printf. False when the text does not fit with its NUL; what fits is there, cut off.
__attribute__((format(printf, 2, 3))) inline bool format_text(std::span<char> out, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int len = std::vsnprintf(out.data(), out.size(), format, arguments);
  va_end(arguments);
  return len >= 0 && static_cast<size_t>(len) < out.size();
}

}  // namespace tq
