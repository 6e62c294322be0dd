#include "crypto/aes128.hpp"

#include <algorithm>
#include <bit>

#include "crypto/aes_tables.hpp"
#include "crypto/block_modes.hpp"
#include "util/endian.hpp"
#include "util/secret.hpp"

namespace tq {
namespace {

constexpr size_t kNumColumns = 4;

using Block = WordBlock;  // the state: columns
using Schedule = Aes128::Schedule;

[[gnu::always_inline]] inline Block round_key(const Schedule& keys, size_t round) {
  const size_t at = kNumColumns * round;
  return {keys[at], keys[at + 1], keys[at + 2], keys[at + 3]};
}

constexpr uint8_t byte_of(uint32_t word, int index) {  // index 0 is the highest
  return static_cast<uint8_t>(word >> (24 - 8 * index));
}

// SubBytes of the bytes that ShiftRows brings into column `i`: row r comes from column i + r * kShift.
template <size_t kShift>
[[gnu::always_inline]] inline uint32_t substituted_column(const std::array<uint8_t, 256>& sbox,
                                                          const Block& x, size_t i) {
  return uint32_t{sbox[byte_of(x[i], 0)]} << 24 | uint32_t{sbox[byte_of(x[(i + kShift) % 4], 1)]} << 16 |
         uint32_t{sbox[byte_of(x[(i + 2 * kShift) % 4], 2)]} << 8 |
         uint32_t{sbox[byte_of(x[(i + 3 * kShift) % 4], 3)]};
}

// The same with the mixing of the column.
template <size_t kShift>
[[gnu::always_inline]] inline uint32_t mixed_column(const std::array<uint32_t, 256>& table, const Block& x,
                                                    size_t i) {
  return table[byte_of(x[i], 0)] ^ std::rotr(table[byte_of(x[(i + kShift) % 4], 1)], 8) ^
         std::rotr(table[byte_of(x[(i + 2 * kShift) % 4], 2)], 16) ^
         std::rotr(table[byte_of(x[(i + 3 * kShift) % 4], 3)], 24);
}

// The cipher of FIPS 197 section 5.1, and in the same form the equivalent inverse cipher of section 5.3.5,
// whose rows shift the other way.
template <size_t kShift>
[[gnu::always_inline]] inline Block crypt_block(const std::array<uint32_t, 256>& table,
                                                const std::array<uint8_t, 256>& sbox, const Schedule& keys,
                                                Block x) {
  x = x ^ round_key(keys, 0);
  for (size_t round = 1; round < Aes128::kNumRounds; ++round) {
    const Block mixed = {mixed_column<kShift>(table, x, 0), mixed_column<kShift>(table, x, 1),
                         mixed_column<kShift>(table, x, 2), mixed_column<kShift>(table, x, 3)};
    x = mixed ^ round_key(keys, round);
  }
  const Block last = {substituted_column<kShift>(sbox, x, 0), substituted_column<kShift>(sbox, x, 1),
                      substituted_column<kShift>(sbox, x, 2), substituted_column<kShift>(sbox, x, 3)};
  return last ^ round_key(keys, Aes128::kNumRounds);
}

struct Encryption {
  static constexpr size_t kBlockLen = Aes128::kBlockLen;
  static constexpr size_t kLanes = 1;
  using Block = WordBlock;
  static Block load(const uint8_t* in) { return load_words(in); }
  static void store(const Block& block, uint8_t* out) { store_words(block, out); }
  Block crypt(const Block& x) const { return crypt_block<1>(aes::kEncryptionTable, aes::kSbox, keys, x); }

  const Schedule& keys;
};

struct Decryption : Encryption {
  Block crypt(const Block& x) const {
    return crypt_block<3>(aes::kDecryptionTable, aes::kInverseSbox, keys, x);
  }
};

uint32_t substitute_word(uint32_t word) {
  return substituted_column<0>(aes::kSbox, {word}, 0);
}

// InvMixColumns of one column; the decryption table takes what is not substituted yet.
uint32_t unmix_column(uint32_t word) {
  return mixed_column<0>(aes::kDecryptionTable, {substitute_word(word)}, 0);
}

}  // namespace

// Section 5.2; the decryption schedule is the encryption schedule backwards, the inner round keys with their
// columns unmixed.
Aes128::Aes128(std::span<const uint8_t, kKeyLen> key) {
  for (size_t i = 0; i < encryption_.size(); ++i) {
    if (i < kNumColumns) {
      encryption_[i] = load_be32(&key[4 * i]);
      continue;
    }
    uint32_t word = encryption_[i - 1];
    if (i % kNumColumns == 0) {
      const uint8_t round_constant = aes::kRoundConstants[i / kNumColumns - 1];
      word = substitute_word(std::rotl(word, 8)) ^ uint32_t { round_constant } << 24;
    }
    encryption_[i] = encryption_[i - kNumColumns] ^ word;
  }
  for (size_t round = 0; round <= kNumRounds; ++round) {
    const bool inner = round > 0 && round < kNumRounds;
    for (size_t i = 0; i < kNumColumns; ++i) {
      const uint32_t word = encryption_[kNumColumns * (kNumRounds - round) + i];
      decryption_[kNumColumns * round + i] = inner ? unmix_column(word) : word;
    }
  }
}

Aes128::~Aes128() {
  wipe(this, sizeof *this);
}

void aes128_cbc_encrypt(const Aes128& key, std::span<uint8_t, Aes128::kBlockLen> iv,
                        std::span<const uint8_t> in, std::span<uint8_t> out) {
  const size_t count = in.size() / Aes128::kBlockLen;
  store_words(cbc_encrypt(Encryption{key.encryption()}, count, load_words(iv.data()), in.data(), out.data()),
              iv.data());
}

void aes128_cbc_decrypt(const Aes128& key, std::span<uint8_t, Aes128::kBlockLen> iv,
                        std::span<const uint8_t> in, std::span<uint8_t> out) {
  const size_t count = in.size() / Aes128::kBlockLen;
  Block chain = load_words(iv.data());
  crypt_independent(Decryption{key.decryption()}, count, &chain, in.data(), out.data());
  store_words(chain, iv.data());
}

}  // namespace tq
