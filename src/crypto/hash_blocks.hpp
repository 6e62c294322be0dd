// What the hashes with 64-byte blocks have in common (Merkle-Damgard strengthening): collecting bytes into
// blocks and completing the last one. `compress` takes a span of whole blocks.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <span>

#include "crypto/constant_time.hpp"
#include "util/secret.hpp"

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

using HashLength = std::array<uint8_t, kHashLengthLen>;

template <std::endian kOrder>
constexpr HashLength hash_length(uint64_t bit_len) {
  HashLength bytes{};
  for (size_t i = 0; i < bytes.size(); ++i) {
    const size_t place = kOrder == std::endian::big ? bytes.size() - 1 - i : i;
    bytes[place] = static_cast<uint8_t>(bit_len >> (8 * i));
  }
  return bytes;
}

// The bit 1, zeros and the message's bit length, in one block or two.
template <std::endian kOrder = std::endian::big, typename Compress>
void complete(std::span<uint8_t, kHashBlockLen> buffer, size_t fill, uint64_t bit_len, Compress&& compress) {
  buffer[fill++] = 0x80;
  if (fill > kHashBlockLen - kHashLengthLen) {
    std::fill(buffer.begin() + static_cast<ptrdiff_t>(fill), buffer.end(), uint8_t{0});
    compress(std::span<const uint8_t>(buffer));
    fill = 0;
  }
  std::fill(buffer.begin() + static_cast<ptrdiff_t>(fill), buffer.end(), uint8_t{0});
  const HashLength length = hash_length<kOrder>(bit_len);
  std::copy(length.begin(), length.end(), buffer.data() + (kHashBlockLen - kHashLengthLen));
  compress(std::span<const uint8_t>(buffer));
}

// Completes a message that goes on, behind the `fill` bytes in `buffer`, with tail.first(len), where `len` is
// secret. Every block that the message could come to is compressed; the state behind the true last one is
// picked out by masks. `prior_len` counts the bytes before the tail. `compress` may overwrite `buffer`.
template <std::endian kOrder = std::endian::big, typename Compress>
void complete_hiding_length(std::span<uint32_t> state, std::span<const uint8_t, kHashBlockLen> buffer,
                            size_t fill, uint64_t prior_len, std::span<const uint8_t> tail, size_t len,
                            Compress&& compress) {
  const size_t end = fill + len;
  const size_t last_block = (end + kHashLengthLen) / kHashBlockLen;
  const size_t num_blocks = (fill + tail.size() + kHashLengthLen) / kHashBlockLen + 1;
  HashLength length = hash_length<kOrder>((prior_len + len) * 8);
  std::array<uint32_t, 8> result{};
  std::array<uint8_t, kHashBlockLen> block;
  const WipeOnExit wipe_length(length);
  const WipeOnExit wipe_result(result);
  const WipeOnExit wipe_block(block);

  for (size_t b = 0; b < num_blocks; ++b) {
    const Mask is_last = equal_mask(b, last_block);
    for (size_t i = 0; i < kHashBlockLen; ++i) {
      const size_t at = kHashBlockLen * b + i;
      size_t byte = 0;
      if (at < fill) {
        byte = buffer[at];
      } else if (at - fill < tail.size()) {
        byte = tail[at - fill];
      }
      byte = (byte & less_mask(at, end)) | (0x80 & equal_mask(at, end));
      if (i >= kHashBlockLen - kHashLengthLen) {
        byte |= length[i - (kHashBlockLen - kHashLengthLen)] & is_last;
      }
      block[i] = static_cast<uint8_t>(byte);
    }
    compress(std::span<const uint8_t>(block));
    for (size_t i = 0; i < state.size(); ++i) result[i] |= state[i] & static_cast<uint32_t>(is_last);
  }
  std::copy_n(result.begin(), state.size(), state.begin());
}

}  // namespace tq
