// Bytes as upper-case hexadecimal text.
#pragma once

#include <cstdint>
#include <span>

#include "util/hex.h"

namespace tq {

// Writes the digits of `bytes` to `out`, which has room for them, without a NUL, and returns their number.
inline size_t write_hex(std::span<const uint8_t> bytes, char* out) {
  return bytesToHexString(bytes.data(), static_cast<uint32_t>(bytes.size()), out);
}

}  // namespace tq
