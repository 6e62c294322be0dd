// The tables of AES (FIPS 197), built from their definitions.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

#include "crypto/gf256.hpp"

namespace tq::aes {

using gf256::kAes;

// Section 5.1.1: the inverse, then an affine map over its bits.
consteval std::array<uint8_t, 256> make_sbox() {
  std::array<uint8_t, 256> sbox{};
  for (size_t x = 0; x < sbox.size(); ++x) {
    const uint8_t b = gf256::invert<kAes>(static_cast<uint8_t>(x));
    sbox[x] = b ^ std::rotl(b, 1) ^ std::rotl(b, 2) ^ std::rotl(b, 3) ^ std::rotl(b, 4) ^ 0x63;
  }
  return sbox;
}
inline constexpr auto kSbox = make_sbox();

// Corners of the standard's table, and its example for the entry '53'.
static_assert(kSbox[0x00] == 0x63 && kSbox[0x0F] == 0x76 && kSbox[0xF0] == 0x8C && kSbox[0xFF] == 0x16);
static_assert(kSbox[0x53] == 0xED);

consteval std::array<uint8_t, 256> make_inverse_sbox() {
  std::array<uint8_t, 256> inverse{};
  for (size_t x = 0; x < inverse.size(); ++x) inverse[kSbox[x]] = static_cast<uint8_t>(x);
  return inverse;
}
inline constexpr auto kInverseSbox = make_inverse_sbox();

// What `x` in the highest byte of a column, which is a big-endian word, contributes under MixColumns or its
// inverse: the first column of their matrices. For a lower byte the contribution is rotated.
consteval uint32_t multiples(uint8_t x, const std::array<uint8_t, 4>& column) {
  uint32_t word = 0;
  for (const uint8_t factor : column) word = word << 8 | gf256::multiply<kAes>(x, factor);
  return word;
}
inline constexpr std::array<uint8_t, 4> kMixColumn = {2, 1, 1, 3};
inline constexpr std::array<uint8_t, 4> kInverseMixColumn = {14, 9, 13, 11};

// S-box and column mixing in one look-up.
consteval std::array<uint32_t, 256> make_round_table(const std::array<uint8_t, 256>& sbox,
                                                     const std::array<uint8_t, 4>& column) {
  std::array<uint32_t, 256> table{};
  for (size_t x = 0; x < table.size(); ++x) table[x] = multiples(sbox[x], column);
  return table;
}
inline constexpr auto kEncryptionTable = make_round_table(kSbox, kMixColumn);
inline constexpr auto kDecryptionTable = make_round_table(kInverseSbox, kInverseMixColumn);

// Section 5.2: the powers of x.
consteval std::array<uint8_t, 10> make_round_constants() {
  std::array<uint8_t, 10> constants{};
  for (size_t i = 0; i < constants.size(); ++i)
    constants[i] = gf256::power<kAes>(2, static_cast<uint32_t>(i));
  return constants;
}
inline constexpr auto kRoundConstants = make_round_constants();

}  // namespace tq::aes
