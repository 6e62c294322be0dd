#include "crypto/aes128.hpp"

#include <algorithm>
#include <bit>

#include "crypto/aes_tables.hpp"
#include "util/endian.hpp"
#include "util/secret.hpp"

namespace tq {
namespace {

constexpr size_t kNumColumns = 4;

using Block = std::array<uint32_t, kNumColumns>;  // the state: columns as big-endian words
using Schedule = Aes128::Schedule;

Block load_block(const uint8_t* in) {
  return {load_be32(in), load_be32(in + 4), load_be32(in + 8), load_be32(in + 12)};
}

void store_block(const Block& block, uint8_t* out) {
  for (size_t i = 0; i < kNumColumns; ++i) store_be32(block[i], out + 4 * i);
}

[[gnu::always_inline]] inline Block operator^(const Block& a, const Block& b) {
  return {a[0] ^ b[0], a[1] ^ b[1], a[2] ^ b[2], a[3] ^ b[3]};
}

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

Block encrypt_block(const Schedule& keys, const Block& block) {
  return crypt_block<1>(aes::kEncryptionTable, aes::kSbox, keys, block);
}

Block decrypt_block(const Schedule& keys, const Block& block) {
  return crypt_block<3>(aes::kDecryptionTable, aes::kInverseSbox, keys, block);
}

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
  uint8_t round_constant = 1;
  for (size_t i = 0; i < encryption_.size(); ++i) {
    if (i < kNumColumns) {
      encryption_[i] = load_be32(&key[4 * i]);
      continue;
    }
    uint32_t word = encryption_[i - 1];
    if (i % kNumColumns == 0) {
      word = substitute_word(std::rotl(word, 8)) ^ uint32_t { round_constant } << 24;
      round_constant = aes::gf_multiply(round_constant, 2);
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
  Block chain = load_block(iv.data());
  for (size_t at = 0; at + Aes128::kBlockLen <= in.size(); at += Aes128::kBlockLen) {
    chain = encrypt_block(key.encryption(), chain ^ load_block(&in[at]));
    store_block(chain, &out[at]);
  }
  store_block(chain, iv.data());
}

void aes128_cbc_decrypt(const Aes128& key, std::span<uint8_t, Aes128::kBlockLen> iv,
                        std::span<const uint8_t> in, std::span<uint8_t> out) {
  Block chain = load_block(iv.data());
  for (size_t at = 0; at + Aes128::kBlockLen <= in.size(); at += Aes128::kBlockLen) {
    const Block ciphertext = load_block(&in[at]);  // before its place is written
    store_block(decrypt_block(key.decryption(), ciphertext) ^ chain, &out[at]);
    chain = ciphertext;
  }
  store_block(chain, iv.data());
}

}  // namespace tq
