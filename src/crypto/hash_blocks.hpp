// What the hashes with 64-byte blocks and big-endian lengths have in common (Merkle-Damgard strengthening):
// collecting bytes into blocks and completing the last one. `compress` takes a span of whole blocks.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "util/endian.hpp"

namespace tq {

inline constexpr size_t kHashBlockLen = 64;
inline constexpr size_t kHashLengthLen = 8;  // the bit length at the end of the last block

// Takes `data` in behind the `fill` bytes (below 64) that wait in `buffer`. Returns how many wait there
// afterwards.
template <typename Compress>
size_t absorb(std::span<uint8_t, kHashBlockLen> buffer, size_t fill, std::span<const uint8_t> data,
              Compress&& compress) {
  if (fill != 0) {
    const auto head = data.first(std::min(data.size(), kHashBlockLen - fill));
    std::copy(head.begin(), head.end(), buffer.data() + fill);
    fill += head.size();
    if (fill < kHashBlockLen) return fill;
    compress(std::span<const uint8_t>(buffer));
    data = data.subspan(head.size());
  }
  const auto tail = data.last(data.size() % kHashBlockLen);
  const auto whole = data.first(data.size() - tail.size());
  if (!whole.empty()) compress(whole);
  std::copy(tail.begin(), tail.end(), buffer.data());
  return tail.size();
}

// The bit 1, zeros and the message's bit length, in one block or two.
template <typename Compress>
void complete(std::span<uint8_t, kHashBlockLen> buffer, size_t fill, uint64_t bit_len, Compress&& compress) {
  buffer[fill++] = 0x80;
  if (fill > kHashBlockLen - kHashLengthLen) {
    std::fill(buffer.begin() + static_cast<ptrdiff_t>(fill), buffer.end(), uint8_t{0});
    compress(std::span<const uint8_t>(buffer));
    fill = 0;
  }
  std::fill(buffer.begin() + static_cast<ptrdiff_t>(fill), buffer.end(), uint8_t{0});
  store_be32(static_cast<uint32_t>(bit_len >> 32), &buffer[kHashBlockLen - 8]);
  store_be32(static_cast<uint32_t>(bit_len), &buffer[kHashBlockLen - 4]);
  compress(std::span<const uint8_t>(buffer));
}

}  // namespace tq
