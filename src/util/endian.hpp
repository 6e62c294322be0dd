// Words in byte buffers. The caller has made sure that the bytes are there.
#pragma once

#include <cstdint>

namespace tq {

constexpr uint32_t load_be32(const uint8_t* in) {
  return uint32_t{in[0]} << 24 | uint32_t{in[1]} << 16 | uint32_t{in[2]} << 8 | uint32_t{in[3]};
}

constexpr void store_be32(uint32_t value, uint8_t* out) {
  out[0] = static_cast<uint8_t>(value >> 24);
  out[1] = static_cast<uint8_t>(value >> 16);
  out[2] = static_cast<uint8_t>(value >> 8);
  out[3] = static_cast<uint8_t>(value);
}

constexpr uint32_t load_le32(const uint8_t* in) {
  return uint32_t{in[3]} << 24 | uint32_t{in[2]} << 16 | uint32_t{in[1]} << 8 | uint32_t{in[0]};
}

constexpr void store_le32(uint32_t value, uint8_t* out) {
  out[0] = static_cast<uint8_t>(value);
  out[1] = static_cast<uint8_t>(value >> 8);
  out[2] = static_cast<uint8_t>(value >> 16);
  out[3] = static_cast<uint8_t>(value >> 24);
}

}  // namespace tq
