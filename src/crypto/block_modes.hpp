// The ways through a message that the block ciphers have in common (NIST SP 800-38A): ECB and CBC, over whole
// blocks, without padding. A cipher, which is a key and a direction, has
//   kBlockLen, kLanes             bytes of a block; how many blocks it works on side by side, where none
//   waits
//                                 for another
//   Block                         a block while it is worked on, with an operator^
//   load(in), store(block, out)   from and to bytes
//   crypt(block)                  one block
//   crypt_lanes(blocks)           kLanes of them, when that is more than 1
// The output may be the input itself: what is needed of it later is read before its place is written.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "util/endian.hpp"
#include "util/secret.hpp"

namespace tq {

// A block of four big-endian words.
using WordBlock = std::array<uint32_t, 4>;

[[gnu::always_inline]] inline WordBlock load_words(const uint8_t* in) {
  return {load_be32(in), load_be32(in + 4), load_be32(in + 8), load_be32(in + 12)};
}

[[gnu::always_inline]] inline void store_words(const WordBlock& block, uint8_t* out) {
  for (size_t i = 0; i < block.size(); ++i) store_be32(block[i], out + 4 * i);
}

[[gnu::always_inline]] inline WordBlock operator^(const WordBlock& a, const WordBlock& b) {
  return {a[0] ^ b[0], a[1] ^ b[1], a[2] ^ b[2], a[3] ^ b[3]};
}

// `count` blocks. Returns the last ciphertext block, the chaining value of the next call.
template <class Cipher>
typename Cipher::Block cbc_encrypt(const Cipher& cipher, size_t count, typename Cipher::Block chain,
                                   const uint8_t* in, uint8_t* out) {
  for (; count > 0; --count, in += Cipher::kBlockLen, out += Cipher::kBlockLen) {
    chain = cipher.crypt(chain ^ Cipher::load(in));
    Cipher::store(chain, out);
  }
  return chain;
}

// ECB either way, or CBC decryption when there is a `chain`: the ciphertext block before, which moves on.
template <class Cipher>
void crypt_independent(const Cipher& cipher, size_t count, typename Cipher::Block* chain, const uint8_t* in,
                       uint8_t* out) {
  constexpr size_t kLanes = Cipher::kLanes;
  std::array<typename Cipher::Block, kLanes> x{};
  std::array<typename Cipher::Block, kLanes> input;
  const WipeOnExit wipe_x(x);
  while (count > 0) {
    const size_t num_lanes = count < kLanes ? 1 : kLanes;
    for (size_t i = 0; i < num_lanes; ++i) x[i] = input[i] = Cipher::load(in + Cipher::kBlockLen * i);
    if (num_lanes == 1) {
      x[0] = cipher.crypt(x[0]);
    } else if constexpr (kLanes > 1) {
      cipher.crypt_lanes(x);
    }
    for (size_t i = 0; i < num_lanes; ++i) {
      if (chain != nullptr) x[i] = x[i] ^ std::exchange(*chain, input[i]);
      Cipher::store(x[i], out + Cipher::kBlockLen * i);
    }
    count -= num_lanes;
    in += num_lanes * Cipher::kBlockLen;
    out += num_lanes * Cipher::kBlockLen;
  }
}

}  // namespace tq
