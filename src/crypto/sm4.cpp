#include "crypto/sm4.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <utility>

#include "crypto/block_modes.hpp"
#include "crypto/sm4_tables.hpp"
#include "util/secret.hpp"

namespace {

constexpr size_t kBlockLen = 16;
constexpr size_t kNumRounds = 32;
constexpr size_t kLanes = 4;  // blocks worked on side by side where none waits for another
constexpr uint32_t kModeEncrypt = 1;
constexpr uint32_t kModeDecrypt = 0;

using Block = tq::WordBlock;
using Lanes = std::array<Block, kLanes>;
using RoundKeys = uint32_t[kNumRounds];

// GB/T 32907 section 6.2: T(x) = L(S(x)).
[[gnu::always_inline]] inline uint32_t t(uint32_t x) {
  using tq::sm4::kRoundTables;
  return kRoundTables[0][x & 0xFF] ^ kRoundTables[1][x >> 8 & 0xFF] ^ kRoundTables[3][x >> 24] ^
         kRoundTables[2][x >> 16 & 0xFF];
}

// A round as the next one waits for it. `input` is the sum of three words and a round key, `rest` all that
// the next input needs beside `word` and T: only T is in the way from one input to the next.
[[gnu::always_inline]] inline uint32_t next_input(uint32_t& word, uint32_t rest, uint32_t input) {
  const uint32_t next = t(input) ^ (rest ^ word);
  word = next ^ rest;
  return next;
}

// One block, section 7.1: 32 rounds, and the words of the result in reverse order.
[[gnu::always_inline]] inline Block crypt_block(const RoundKeys& rk, Block x) {
  uint32_t input = x[1] ^ x[2] ^ x[3] ^ rk[0];
  for (size_t i = 0;; i += 4) {
    input = next_input(x[0], rk[i + 1] ^ x[2] ^ x[3], input);
    input = next_input(x[1], rk[i + 2] ^ x[3] ^ x[0], input);
    input = next_input(x[2], rk[i + 3] ^ x[0] ^ x[1], input);
    if (i + 4 == kNumRounds) break;
    input = next_input(x[3], rk[i + 4] ^ x[1] ^ x[2], input);
  }
  return {x[3] ^ t(input), x[2], x[1], x[0]};
}

// The same for blocks that do not depend on each other, round by round across all of them.
template <size_t... kLane>
[[gnu::always_inline]] inline void crypt_lanes(const RoundKeys& rk, Lanes& x,
                                               std::index_sequence<kLane...> /*lanes*/) {
  for (size_t i = 0; i < kNumRounds; i += 4) {
    ((x[kLane][0] ^= t(x[kLane][1] ^ x[kLane][2] ^ x[kLane][3] ^ rk[i])), ...);
    ((x[kLane][1] ^= t(x[kLane][2] ^ x[kLane][3] ^ x[kLane][0] ^ rk[i + 1])), ...);
    ((x[kLane][2] ^= t(x[kLane][3] ^ x[kLane][0] ^ x[kLane][1] ^ rk[i + 2])), ...);
    ((x[kLane][3] ^= t(x[kLane][0] ^ x[kLane][1] ^ x[kLane][2] ^ rk[i + 3])), ...);
  }
  ((x[kLane] = {x[kLane][3], x[kLane][2], x[kLane][1], x[kLane][0]}), ...);
}

// With a schedule for either direction.
struct Sm4 {
  static constexpr size_t kBlockLen = ::kBlockLen;
  static constexpr size_t kLanes = ::kLanes;
  using Block = ::Block;
  static Block load(const uint8_t* in) { return tq::load_words(in); }
  static void store(const Block& block, uint8_t* out) { tq::store_words(block, out); }
  [[gnu::always_inline]] Block crypt(const Block& x) const { return crypt_block(rk, x); }
  [[gnu::always_inline]] void crypt_lanes(Lanes& x) const {
    ::crypt_lanes(rk, x, std::make_index_sequence<kLanes>());
  }

  const RoundKeys& rk;
};

size_t num_blocks(int32_t length) {
  return length < 1 ? 0 : (static_cast<size_t>(length) + kBlockLen - 1) / kBlockLen;
}

// Section 7.3: the S-box, then a linear map of its own.
uint32_t key_function(uint32_t x) {
  uint32_t b = 0;
  for (int shift = 24; shift >= 0; shift -= 8) b = b << 8 | tq::sm4::kSbox[x >> shift & 0xFF];
  return b ^ std::rotl(b, 13) ^ std::rotl(b, 23);
}

}  // namespace

extern "C" {

void TQ_sm4_setkey_enc(TQ_SM4_CTX* ctx, const uint8_t key[16]) {
  Block k = tq::operator^(tq::load_words(key), tq::sm4::kFk);
  const tq::WipeOnExit wipe_k(k);
  for (size_t i = 0; i < kNumRounds; ++i) {
    k[i % 4] ^= key_function(k[(i + 1) % 4] ^ k[(i + 2) % 4] ^ k[(i + 3) % 4] ^ tq::sm4::kCk[i]);
    ctx->rk[i] = k[i % 4];
  }
  ctx->mode = kModeEncrypt;
}

void TQ_sm4_setkey_dec(TQ_SM4_CTX* ctx, const uint8_t key[16]) {
  TQ_sm4_setkey_enc(ctx, key);
  std::reverse(ctx->rk, ctx->rk + kNumRounds);
  ctx->mode = kModeDecrypt;
}

void TQ_sm4_crypt_ecb(const TQ_SM4_CTX* ctx, int32_t /*mode*/, int32_t length, const uint8_t* input,
                      uint8_t* output) {
  tq::crypt_independent(Sm4{ctx->rk}, num_blocks(length), nullptr, input, output);
}

void TQ_sm4_crypt_cbc(const TQ_SM4_CTX* ctx, int32_t mode, int32_t length, uint8_t iv[16],
                      const uint8_t* input, uint8_t* output) {
  const size_t count = num_blocks(length);
  if (count == 0) return;
  Block chain = tq::load_words(iv);
  if (mode == static_cast<int32_t>(kModeEncrypt)) {
    chain = tq::cbc_encrypt(Sm4{ctx->rk}, count, chain, input, output);
  } else {
    tq::crypt_independent(Sm4{ctx->rk}, count, &chain, input, output);
  }
  tq::store_words(chain, iv);
}

void scp_sm4_setkey_enc(TQ_SM4_CTX* ctx, const uint8_t key[16]) {
  TQ_sm4_setkey_enc(ctx, key);
}

void scp_sm4_setkey_dec(TQ_SM4_CTX* ctx, const uint8_t key[16]) {
  TQ_sm4_setkey_dec(ctx, key);
}

void scp_sm4_crypt_ecb(const TQ_SM4_CTX* ctx, int32_t mode, int32_t length, const uint8_t* input,
                       uint8_t* output) {
  TQ_sm4_crypt_ecb(ctx, mode, length, input, output);
}

void scp_sm4_crypt_cbc(const TQ_SM4_CTX* ctx, int32_t mode, int32_t length, uint8_t iv[16],
                       const uint8_t* input, uint8_t* output) {
  TQ_sm4_crypt_cbc(ctx, mode, length, iv, input, output);
}

}  // extern "C"
