#include "util/block_codec.h"

#include <cstring>
#include <limits>

#include "util/block_codec.hpp"
#include "util/secret.hpp"

namespace {

constexpr size_t kMaxLen = std::numeric_limits<int32_t>::max();

}  // namespace

extern "C" {

int32_t tq1_encode(const uint8_t* src, uint32_t n, const uint8_t key[8], uint8_t* dst) {
  if ((src == nullptr && n != 0) || key == nullptr || dst == nullptr) return -1;
  if (n > kMaxLen - tq::kCodecBlockLen) return -1;
  const size_t encoded_len = tq::block_encoded_len(n);
  tq::ScratchBuffer blocks(encoded_len);
  if (!blocks) return -1;
  if (n != 0) std::memcpy(blocks.data(), src, n);
  tq::block_encode_in_place(blocks.bytes(), n, tq::CodecKey(key, tq::kCodecBlockLen));
  std::memcpy(dst, blocks.data(), encoded_len);
  return static_cast<int32_t>(encoded_len);
}

int32_t tq1_decode(const uint8_t* src, uint32_t n, const uint8_t key[8], uint8_t* dst) {
  if (src == nullptr || key == nullptr || dst == nullptr) return -1;
  if (n == 0 || n % tq::kCodecBlockLen != 0 || n > kMaxLen) return -1;
  tq::ScratchBuffer blocks(n);
  if (!blocks) return -1;
  std::memcpy(blocks.data(), src, n);
  const int64_t plain_len = tq::block_decode_in_place(blocks.bytes(), tq::CodecKey(key, tq::kCodecBlockLen));
  if (plain_len > 0) std::memcpy(dst, blocks.data(), static_cast<size_t>(plain_len));
  return static_cast<int32_t>(plain_len);
}

int32_t tq2_encode(const uint8_t* src, uint32_t n, const uint8_t key[8], uint8_t* dst) {
  return tq1_encode(src, n, key, dst);
}

int32_t tq2_decode(const uint8_t* src, uint32_t n, const uint8_t key[8], uint8_t* dst) {
  return tq1_decode(src, n, key, dst);
}

}  // extern "C"
