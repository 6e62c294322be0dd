// Two-key triple DES in CBC mode from a vector of zeros: the one cipher of Basic Access Control and secure
// messaging (ICAO 9303-11 section 4.3, 9.8). Keys are 16 bytes. `in` is whole blocks of 8 bytes; `out` has
// the same room and may be `in`. False, and nothing written, for any other length. No key schedule stays
// behind.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>

#include "crypto/des.h"
#include "util/secret.hpp"

namespace tq {

constexpr size_t kDesBlockLen = 8;
constexpr size_t kTwoKeyLen = 16;

namespace three_des {

enum Direction : int32_t { kDecrypt = 0, kEncrypt = 1 };

inline bool crypt(Direction direction, const uint8_t* key, std::span<const uint8_t> in, uint8_t* out) {
  if (in.size() > size_t{std::numeric_limits<int32_t>::max()}) return false;
  TQ_DES3_CTX ctx;
  const WipeOnExit wipe_ctx(ctx);
  (direction == kEncrypt ? tq_des3_set2key_enc : tq_des3_set2key_dec)(&ctx, key);
  Secret<kDesBlockLen> chain;
  return tq_des3_crypt_cbc(&ctx, direction, static_cast<int32_t>(in.size()), chain.data(), in.data(), out) ==
         0;
}

}  // namespace three_des

[[nodiscard]] inline bool three_des_encrypt(const uint8_t* key, std::span<const uint8_t> in, uint8_t* out) {
  return three_des::crypt(three_des::kEncrypt, key, in, out);
}

[[nodiscard]] inline bool three_des_decrypt(const uint8_t* key, std::span<const uint8_t> in, uint8_t* out) {
  return three_des::crypt(three_des::kDecrypt, key, in, out);
}

}  // namespace tq
