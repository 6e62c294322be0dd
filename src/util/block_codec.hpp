// The block encoding of block_codec.h in a form that also runs at compile time, for text that must not stand
// plainly in the binary.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace tq {

inline constexpr size_t kCodecBlockLen = 8;

using CodecKey = std::span<const uint8_t, kCodecBlockLen>;

// Length of `plain_len` bytes once encoded; padding is always added.
constexpr size_t block_encoded_len(size_t plain_len) {
  return plain_len + kCodecBlockLen - plain_len % kCodecBlockLen;
}

namespace codec_detail {

constexpr void xor_block(std::span<uint8_t> block, std::span<const uint8_t> other) {
  for (size_t i = 0; i < kCodecBlockLen; ++i) block[i] = static_cast<uint8_t>(block[i] ^ other[i]);
}

constexpr void reverse_blocks(std::span<uint8_t> blocks) {
  for (; blocks.size() >= 2 * kCodecBlockLen;
       blocks = blocks.subspan(kCodecBlockLen, blocks.size() - 2 * kCodecBlockLen)) {
    const auto last = blocks.last(kCodecBlockLen);
    std::swap_ranges(last.begin(), last.end(), blocks.begin());
  }
}

}  // namespace codec_detail

// Encodes in place. `blocks` is block_encoded_len(plain_len) bytes and begins with the plain ones.
constexpr void block_encode_in_place(std::span<uint8_t> blocks, size_t plain_len, CodecKey key) {
  const auto padding = blocks.subspan(plain_len);
  std::fill(padding.begin(), padding.end(), static_cast<uint8_t>(padding.size()));
  codec_detail::reverse_blocks(blocks);
  std::span<const uint8_t> previous = key;
  for (size_t at = 0; at < blocks.size(); at += kCodecBlockLen) {
    const auto block = blocks.subspan(at, kCodecBlockLen);
    codec_detail::xor_block(block, previous);
    previous = block;
  }
}

// Decodes in place; `blocks` is a positive multiple of 8 bytes. Returns the plain length, or -1 when the
// padding would be longer than the blocks.
constexpr int64_t block_decode_in_place(std::span<uint8_t> blocks, CodecKey key) {
  for (size_t at = blocks.size() - kCodecBlockLen; at > 0; at -= kCodecBlockLen) {
    codec_detail::xor_block(blocks.subspan(at, kCodecBlockLen),
                            blocks.subspan(at - kCodecBlockLen, kCodecBlockLen));
  }
  codec_detail::xor_block(blocks, key);
  codec_detail::reverse_blocks(blocks);
  const size_t padding = blocks.back();
  return padding > blocks.size() ? -1 : static_cast<int64_t>(blocks.size() - padding);
}

// The encoded form of a fixed number of bytes, such as the 24 bytes of a 16-byte key.
template <size_t N>
constexpr std::array<uint8_t, block_encoded_len(N)> block_encode(
    const std::array<uint8_t, N>& plain, const std::array<uint8_t, kCodecBlockLen>& key) {
  std::array<uint8_t, block_encoded_len(N)> blocks{};
  std::copy(plain.begin(), plain.end(), blocks.begin());
  block_encode_in_place(blocks, N, key);
  return blocks;
}

}  // namespace tq
