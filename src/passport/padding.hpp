// Padding of ISO/IEC 9797-1, method 2: the byte 80, then zeros up to a whole number of blocks; always at
// least one byte.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

namespace tq {

constexpr uint8_t kPaddingStart = 0x80;

constexpr size_t padded_len(size_t len, size_t block_len) {
  return (len / block_len + 1) * block_len;
}

// Pads the first `len` bytes of `buffer` in place. Returns what is then there; nothing when it does not fit.
inline std::span<uint8_t> pad(std::span<uint8_t> buffer, size_t len, size_t block_len) {
  if (len > buffer.size() || padded_len(len, block_len) > buffer.size()) return {};
  const std::span<uint8_t> padded = buffer.first(padded_len(len, block_len));
  padded[len] = kPaddingStart;
  std::fill(padded.begin() + static_cast<ptrdiff_t>(len) + 1, padded.end(), uint8_t{0});
  return padded;
}

// Bad padding is kept: everything up to the last byte that is not zero counts as data.
inline std::span<const uint8_t> without_padding(std::span<const uint8_t> padded) {
  while (!padded.empty() && padded.back() == 0x00) padded = padded.first(padded.size() - 1);
  const bool well_padded = !padded.empty() && padded.back() == kPaddingStart;
  return well_padded ? padded.first(padded.size() - 1) : padded;
}

}  // namespace tq
