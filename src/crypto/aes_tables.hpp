// The tables of AES (FIPS 197), built from their definitions.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

namespace tq::aes {

// Section 4.2: product in GF(2^8) modulo x^8 + x^4 + x^3 + x + 1.
constexpr uint8_t gf_multiply(uint8_t a, uint8_t b) {
  uint32_t product = 0;
  for (uint32_t i = 0, shifted = a; i < 8; ++i) {
    if (((b >> i) & 1) != 0) product ^= shifted;
    shifted = shifted << 1 ^ ((shifted & 0x80) != 0 ? 0x11B : 0);
  }
  return static_cast<uint8_t>(product);
}

// a^254, which is 1/a, and 0 for 0.
constexpr uint8_t gf_invert(uint8_t a) {
  uint8_t result = 1;
  for (uint32_t exponent = 254; exponent != 0; exponent >>= 1) {
    if ((exponent & 1) != 0) result = gf_multiply(result, a);
    a = gf_multiply(a, a);
  }
  return result;
}

// Section 5.1.1: the inverse, then an affine map over its bits.
constexpr std::array<uint8_t, 256> make_sbox() {
  std::array<uint8_t, 256> sbox{};
  for (size_t x = 0; x < sbox.size(); ++x) {
    const uint8_t b = gf_invert(static_cast<uint8_t>(x));
    sbox[x] = b ^ std::rotl(b, 1) ^ std::rotl(b, 2) ^ std::rotl(b, 3) ^ std::rotl(b, 4) ^ 0x63;
  }
  return sbox;
}
inline constexpr auto kSbox = make_sbox();

// Corners of the standard's table, and its example for the entry '53'.
static_assert(kSbox[0x00] == 0x63 && kSbox[0x0F] == 0x76 && kSbox[0xF0] == 0x8C && kSbox[0xFF] == 0x16);
static_assert(kSbox[0x53] == 0xED);

constexpr std::array<uint8_t, 256> make_inverse_sbox() {
  std::array<uint8_t, 256> inverse{};
  for (size_t x = 0; x < inverse.size(); ++x) inverse[kSbox[x]] = static_cast<uint8_t>(x);
  return inverse;
}
inline constexpr auto kInverseSbox = make_inverse_sbox();

// What `x` in the highest byte of a column, which is a big-endian word, contributes under MixColumns or its
// inverse: the first column of their matrices. For a lower byte the contribution is rotated.
constexpr uint32_t multiples(uint8_t x, const std::array<uint8_t, 4>& column) {
  uint32_t word = 0;
  for (const uint8_t factor : column) word = word << 8 | gf_multiply(x, factor);
  return word;
}
inline constexpr std::array<uint8_t, 4> kMixColumn = {2, 1, 1, 3};
inline constexpr std::array<uint8_t, 4> kInverseMixColumn = {14, 9, 13, 11};

// S-box and column mixing in one look-up.
constexpr std::array<uint32_t, 256> make_round_table(const std::array<uint8_t, 256>& sbox,
                                                     const std::array<uint8_t, 4>& column) {
  std::array<uint32_t, 256> table{};
  for (size_t x = 0; x < table.size(); ++x) table[x] = multiples(sbox[x], column);
  return table;
}
inline constexpr auto kEncryptionTable = make_round_table(kSbox, kMixColumn);
inline constexpr auto kDecryptionTable = make_round_table(kInverseSbox, kInverseMixColumn);

}  // namespace tq::aes
