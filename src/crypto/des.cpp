#include "crypto/des.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <span>
#include <utility>

#include "crypto/block_modes.hpp"
#include "crypto/des_tables.hpp"
#include "util/endian.hpp"
#include "util/secret.hpp"

namespace {

constexpr size_t kBlockLen = 8;
constexpr size_t kKeyLen = 8;
constexpr size_t kScheduleLen = 32;  // words: 16 rounds of two
constexpr size_t kLanes = 4;         // blocks worked on side by side where none waits for another
constexpr int32_t kModeEncrypt = 1;
constexpr int32_t kBadLength = -50;

using Schedule = std::span<uint32_t, kScheduleLen>;
using RoundKeys = std::span<const uint32_t>;  // one schedule or three

// Both halves of a block between the initial and the final permutation, in expanded form.
struct Halves {
  uint64_t left;
  uint64_t right;
};
using Lanes = std::array<Halves, kLanes>;

// Exchanges the bits of `b` under `mask` with those of `a` that stand `shift` places higher.
void exchange_bits(uint32_t& a, uint32_t& b, int shift, uint32_t mask) {
  const uint32_t difference = (a >> shift ^ b) & mask;
  b ^= difference;
  a ^= difference << shift;
}

// IP, as five exchanges between the halves; backwards they are the final permutation.
[[gnu::always_inline]] inline Halves load_block(const uint8_t* in) {
  uint32_t left = tq::load_be32(in);
  uint32_t right = tq::load_be32(in + 4);
  exchange_bits(left, right, 4, 0x0F0F0F0F);
  exchange_bits(left, right, 16, 0x0000FFFF);
  exchange_bits(right, left, 2, 0x33333333);
  exchange_bits(right, left, 8, 0x00FF00FF);
  exchange_bits(left, right, 1, 0x55555555);
  return {tq::des::expand(left), tq::des::expand(right)};
}

[[gnu::always_inline]] inline void store_block(const Halves& block, uint8_t* out) {
  uint32_t left = tq::des::contract(block.left);
  uint32_t right = tq::des::contract(block.right);
  exchange_bits(left, right, 1, 0x55555555);
  exchange_bits(right, left, 8, 0x00FF00FF);
  exchange_bits(right, left, 2, 0x33333333);
  exchange_bits(left, right, 16, 0x0000FFFF);
  exchange_bits(left, right, 4, 0x0F0F0F0F);
  tq::store_be32(left, out);
  tq::store_be32(right, out + 4);
}

// The permutations are linear: sums may be taken between them.
Halves operator^(const Halves& a, const Halves& b) {
  return {a.left ^ b.left, a.right ^ b.right};
}

// A round key is one expanded half, in two words. Even the words of a context that was never set give groups
// of six bits, which cannot reach beyond a table.
[[gnu::always_inline]] inline uint64_t round_key(const uint32_t* words) {
  return std::bit_cast<uint64_t>(std::array<uint32_t, 2>{words[0], words[1]}) & tq::des::kExpandedBits;
}

// A round of eight look-ups. The S-boxes' outputs share no bit, so that adding them and exclusive-oring them
// is the same; the two operators in turn keep a compiler from chaining all eight one behind the other.
[[gnu::always_inline]] inline uint64_t round_function(uint64_t x) {
  const auto& table = tq::des::kRoundTables;
  const auto bytes_01 = static_cast<uint16_t>(x);
  const auto bytes_23 = static_cast<uint16_t>(x >> 16);
  const auto bytes_45 = static_cast<uint16_t>(x >> 32);
  const auto bytes_67 = static_cast<uint16_t>(x >> 48);
  return (table[0][bytes_01 & 0xFF] + table[1][bytes_01 >> 8]) ^
         (table[2][bytes_23 & 0xFF] + table[3][bytes_23 >> 8]) ^
         (table[4][bytes_45 & 0xFF] + table[5][bytes_45 >> 8]) ^
         (table[6][bytes_67 & 0xFF] + table[7][bytes_67 >> 8]);
}

// Sixteen rounds, written out: the loop would cost as much as a round.
template <size_t... kPair>
[[gnu::always_inline]] inline void all_rounds(const uint32_t* sk, Halves& x,
                                              std::index_sequence<kPair...> /*pairs*/) {
  ((x.left ^= round_function(x.right ^ round_key(sk + 4 * kPair)),
    x.right ^= round_function(x.left ^ round_key(sk + 4 * kPair + 2))),
   ...);
}

// One DES for each schedule without the outer permutations, which cancel out between two DES.
[[gnu::always_inline]] inline Halves crypt_block(RoundKeys sk, Halves x) {
  for (; !sk.empty(); sk = sk.subspan(kScheduleLen)) {
    all_rounds(sk.data(), x, std::make_index_sequence<kScheduleLen / 4>());
    x = {x.right, x.left};
  }
  return x;
}

// The same for blocks that do not depend on each other, round by round across all of them.
template <size_t... kLane>
[[gnu::always_inline]] inline void crypt_lanes(RoundKeys sk, Lanes& x,
                                               std::index_sequence<kLane...> /*lanes*/) {
  for (; !sk.empty(); sk = sk.subspan(kScheduleLen)) {
    for (size_t i = 0; i < kScheduleLen; i += 4) {
      const uint64_t first = round_key(&sk[i]);
      const uint64_t second = round_key(&sk[i + 2]);
      ((x[kLane].left ^= round_function(x[kLane].right ^ first)), ...);
      ((x[kLane].right ^= round_function(x[kLane].left ^ second)), ...);
    }
    ((x[kLane] = {x[kLane].right, x[kLane].left}), ...);
  }
}

// The chaining value stays between the permutations, so that neither of them stands in the chain.
struct Des {
  static constexpr size_t kBlockLen = ::kBlockLen;
  static constexpr size_t kLanes = ::kLanes;
  using Block = Halves;
  [[gnu::always_inline]] static Block load(const uint8_t* in) { return load_block(in); }
  [[gnu::always_inline]] static void store(const Block& block, uint8_t* out) { store_block(block, out); }
  [[gnu::always_inline]] Block crypt(const Block& x) const { return crypt_block(sk, x); }
  [[gnu::always_inline]] void crypt_lanes(Lanes& x) const {
    ::crypt_lanes(sk, x, std::make_index_sequence<kLanes>());
  }

  RoundKeys sk;
};

void crypt_ecb(RoundKeys sk, const uint8_t* in, uint8_t* out) {
  tq::crypt_independent(Des{sk}, 1, nullptr, in, out);
}

int32_t crypt_cbc(RoundKeys sk, int32_t mode, int32_t length, uint8_t* iv, const uint8_t* in, uint8_t* out) {
  if (length < 0 || length % static_cast<int32_t>(kBlockLen) != 0) return kBadLength;
  if (length == 0) return 0;
  const size_t count = static_cast<size_t>(length) / kBlockLen;
  Halves chain = load_block(iv);
  if (mode == kModeEncrypt) {
    chain = tq::cbc_encrypt(Des{sk}, count, chain, in, out);
  } else {
    tq::crypt_independent(Des{sk}, count, &chain, in, out);
  }
  store_block(chain, iv);
  return 0;
}

uint32_t rotate_28(uint32_t half, uint32_t count) {
  return (half << count | half >> (28 - count)) & 0x0FFFFFFF;
}

void expand_key(const uint8_t* key, Schedule sk) {
  const uint64_t key_bits = uint64_t{tq::load_be32(key)} << 32 | tq::load_be32(key + 4);
  const uint64_t halves = tq::des::look_up(tq::des::kHalvesOfKey, key_bits);
  auto c = static_cast<uint32_t>(halves >> 28);
  auto d = static_cast<uint32_t>(halves & 0x0FFFFFFF);
  for (size_t round = 0; round < tq::des::kShifts.size(); ++round) {
    c = rotate_28(c, tq::des::kShifts[round]);
    d = rotate_28(d, tq::des::kShifts[round]);
    const uint64_t round_key = tq::des::look_up(tq::des::kRoundKeyOfHalves, uint64_t{c} << 28 | d);
    const auto words = std::bit_cast<std::array<uint32_t, 2>>(round_key);
    sk[2 * round] = words[0];
    sk[2 * round + 1] = words[1];
  }
}

// The same round keys from the last to the first.
void reverse_rounds(Schedule sk) {
  for (size_t i = 0; i < kScheduleLen / 2; i += 2) {
    std::swap(sk[i], sk[kScheduleLen - 2 - i]);
    std::swap(sk[i + 1], sk[kScheduleLen - 1 - i]);
  }
}

void expand_key_reversed(const uint8_t* key, Schedule sk) {
  expand_key(key, sk);
  reverse_rounds(sk);
}

Schedule schedule_of(TQ_DES3_CTX& ctx, size_t i) {
  return Schedule(ctx.sk + kScheduleLen * i, kScheduleLen);
}

void set_ede(TQ_DES3_CTX& ctx, const uint8_t* k1, const uint8_t* k2, const uint8_t* k3) {
  expand_key(k1, schedule_of(ctx, 0));
  expand_key_reversed(k2, schedule_of(ctx, 1));
  expand_key(k3, schedule_of(ctx, 2));
}

void set_ded(TQ_DES3_CTX& ctx, const uint8_t* k1, const uint8_t* k2, const uint8_t* k3) {
  expand_key_reversed(k3, schedule_of(ctx, 0));
  expand_key(k2, schedule_of(ctx, 1));
  expand_key_reversed(k1, schedule_of(ctx, 2));
}

bool has_odd_parity(uint8_t byte) {
  return std::popcount(byte) % 2 == 1;
}

// NIST SP 800-67 section 3.3.2.
constexpr uint8_t kWeakKeys[16][kKeyLen] = {
    {0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01, 0x01}, {0xFE, 0xFE, 0xFE, 0xFE, 0xFE, 0xFE, 0xFE, 0xFE},
    {0xE0, 0xE0, 0xE0, 0xE0, 0xF1, 0xF1, 0xF1, 0xF1}, {0x1F, 0x1F, 0x1F, 0x1F, 0x0E, 0x0E, 0x0E, 0x0E},
    {0x01, 0x1F, 0x01, 0x1F, 0x01, 0x0E, 0x01, 0x0E}, {0x1F, 0x01, 0x1F, 0x01, 0x0E, 0x01, 0x0E, 0x01},
    {0x01, 0xE0, 0x01, 0xE0, 0x01, 0xF1, 0x01, 0xF1}, {0xE0, 0x01, 0xE0, 0x01, 0xF1, 0x01, 0xF1, 0x01},
    {0x01, 0xFE, 0x01, 0xFE, 0x01, 0xFE, 0x01, 0xFE}, {0xFE, 0x01, 0xFE, 0x01, 0xFE, 0x01, 0xFE, 0x01},
    {0x1F, 0xE0, 0x1F, 0xE0, 0x0E, 0xF1, 0x0E, 0xF1}, {0xE0, 0x1F, 0xE0, 0x1F, 0xF1, 0x0E, 0xF1, 0x0E},
    {0x1F, 0xFE, 0x1F, 0xFE, 0x0E, 0xFE, 0x0E, 0xFE}, {0xFE, 0x1F, 0xFE, 0x1F, 0xFE, 0x0E, 0xFE, 0x0E},
    {0xE0, 0xFE, 0xE0, 0xFE, 0xF1, 0xFE, 0xF1, 0xFE}, {0xFE, 0xE0, 0xFE, 0xE0, 0xFE, 0xF1, 0xFE, 0xF1},
};

}  // namespace

extern "C" {

void tq_des_init(TQ_DES_CTX* ctx) {
  *ctx = {};
}

void tq_des3_init(TQ_DES3_CTX* ctx) {
  *ctx = {};
}

void tq_des_free(TQ_DES_CTX* ctx) {
  if (ctx != nullptr) tq::wipe(ctx, sizeof *ctx);
}

void tq_des3_free(TQ_DES3_CTX* ctx) {
  if (ctx != nullptr) tq::wipe(ctx, sizeof *ctx);
}

void tq_des_key_set_parity(uint8_t key[8]) {
  for (uint8_t& byte : std::span(key, kKeyLen)) {
    if (!has_odd_parity(byte)) byte ^= 1;
  }
}

int32_t tq_des_key_check_key_parity(const uint8_t key[8]) {
  return std::all_of(key, key + kKeyLen, has_odd_parity) ? 0 : 1;
}

int32_t tq_des_key_check_weak(const uint8_t key[8]) {
  const bool weak = std::any_of(std::begin(kWeakKeys), std::end(kWeakKeys), [key](const auto& weak_key) {
    return std::equal(key, key + kKeyLen, weak_key);
  });
  return weak ? 1 : 0;
}

int32_t tq_des_setkey_enc(TQ_DES_CTX* ctx, const uint8_t key[8]) {
  expand_key(key, ctx->sk);
  return 0;
}

int32_t tq_des_setkey_dec(TQ_DES_CTX* ctx, const uint8_t key[8]) {
  expand_key_reversed(key, ctx->sk);
  return 0;
}

int32_t tq_des3_set2key_enc(TQ_DES3_CTX* ctx, const uint8_t key[16]) {
  set_ede(*ctx, key, key + kKeyLen, key);
  return 0;
}

int32_t tq_des3_set2key_dec(TQ_DES3_CTX* ctx, const uint8_t key[16]) {
  set_ded(*ctx, key, key + kKeyLen, key);
  return 0;
}

int32_t tq_des3_set3key_enc(TQ_DES3_CTX* ctx, const uint8_t key[24]) {
  set_ede(*ctx, key, key + kKeyLen, key + 2 * kKeyLen);
  return 0;
}

int32_t tq_des3_set3key_dec(TQ_DES3_CTX* ctx, const uint8_t key[24]) {
  set_ded(*ctx, key, key + kKeyLen, key + 2 * kKeyLen);
  return 0;
}

int32_t tq_des_crypt_ecb(const TQ_DES_CTX* ctx, const uint8_t input[8], uint8_t output[8]) {
  crypt_ecb(ctx->sk, input, output);
  return 0;
}

int32_t tq_des3_crypt_ecb(const TQ_DES3_CTX* ctx, const uint8_t input[8], uint8_t output[8]) {
  crypt_ecb(ctx->sk, input, output);
  return 0;
}

int32_t tq_des_crypt_cbc(const TQ_DES_CTX* ctx, int32_t mode, int32_t length, uint8_t iv[8],
                         const uint8_t* input, uint8_t* output) {
  return crypt_cbc(ctx->sk, mode, length, iv, input, output);
}

int32_t tq_des3_crypt_cbc(const TQ_DES3_CTX* ctx, int32_t mode, int32_t length, uint8_t iv[8],
                          const uint8_t* input, uint8_t* output) {
  return crypt_cbc(ctx->sk, mode, length, iv, input, output);
}

}  // extern "C"
