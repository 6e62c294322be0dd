#include "util/diagnostics.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <span>

#include "util/diagnostics.hpp"
#include "util/hex.h"

namespace {

constexpr size_t kMaxText = 1024;  // with the NUL

void write_hex_line(std::span<const uint8_t> bytes) {
  char digits[kMaxText];
  while (!bytes.empty()) {
    const auto piece = bytes.first(std::min(bytes.size(), sizeof digits / 2));
    const uint32_t len = bytesToHexString(piece.data(), static_cast<uint32_t>(piece.size()), digits);
    static_cast<void>(std::fwrite(digits, 1, len, stdout));
    bytes = bytes.subspan(piece.size());
  }
  static_cast<void>(std::putchar('\n'));
}

std::span<const uint8_t> span_of(const uint8_t* bytes, uint32_t n) {
  return {bytes, bytes == nullptr ? 0 : n};
}

}  // namespace

namespace tq {

void dump(Dump what, std::span<const uint8_t> bytes) {
#if defined(TQREADER_LOG_FULL)
  constexpr const char* kLabels[] = {"---cmd: ", "---recv: ", "Send SR: ", "Recv SR: "};
  print_hex(kLabels[static_cast<size_t>(what)], bytes.data(), static_cast<uint32_t>(bytes.size()));
#else
  static_cast<void>(what);
  static_cast<void>(bytes);
#endif
}

}  // namespace tq

extern "C" {

void tq_printf(const char* format, ...) {
  char text[kMaxText] = "";
  va_list arguments;
  va_start(arguments, format);
  const int len = std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  if (len > 0) static_cast<void>(std::fputs(text, stdout));
}

void print_hex(const char* label, const uint8_t* bytes, uint32_t n) {
  if (label != nullptr) tq_printf("%s", label);
  write_hex_line(span_of(bytes, n));
}

void scp_print_hex(const char* label, const uint8_t* bytes, uint32_t n) {
  if (label != nullptr) static_cast<void>(std::fputs(label, stdout));
  write_hex_line(span_of(bytes, n));
}

}  // extern "C"
