// The tables of SM4 (GB/T 32907-2016), built from their definitions; the S-box from its algebraic form.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

#include "crypto/gf256.hpp"

namespace tq::sm4 {

// Affine map: a circulant bit matrix whose row i is 0xA7 rotated left by i, then a constant.
consteval uint8_t affine(uint8_t x) {
  uint32_t image = 0;
  uint8_t row = 0xA7;
  for (uint32_t i = 0; i < 8; ++i, row = std::rotl(row, 1)) {
    const auto num_bits = static_cast<uint32_t>(std::popcount(static_cast<uint8_t>(row & x)));
    image |= (num_bits & 1) << i;
  }
  return static_cast<uint8_t>(image ^ 0xD3);
}

// The S-box: the affine map, the inverse in the field, the affine map again.
consteval std::array<uint8_t, 256> make_sbox() {
  std::array<uint8_t, 256> sbox{};
  for (size_t x = 0; x < sbox.size(); ++x) {
    sbox[x] = affine(gf256::invert<gf256::kSm4>(affine(static_cast<uint8_t>(x))));
  }
  return sbox;
}
inline constexpr auto kSbox = make_sbox();

// Corners of the standard's table, and its example for the entry 'EF'.
static_assert(kSbox[0x00] == 0xD6 && kSbox[0x0F] == 0x05 && kSbox[0xF0] == 0x18 && kSbox[0xFF] == 0x48);
static_assert(kSbox[0xEF] == 0x84);

// Section 6.2: the linear map L of the round function.
constexpr uint32_t mix(uint32_t b) {
  return b ^ std::rotl(b, 2) ^ std::rotl(b, 10) ^ std::rotl(b, 18) ^ std::rotl(b, 24);
}

// kRoundTables[i][x] is L of S(x) standing in byte i of a word, byte 0 the lowest: the round function is four
// look-ups.
constexpr std::array<std::array<uint32_t, 256>, 4> make_round_tables() {
  std::array<std::array<uint32_t, 256>, 4> tables{};
  for (size_t i = 0; i < tables.size(); ++i) {
    for (size_t x = 0; x < 256; ++x) tables[i][x] = mix(uint32_t{kSbox[x]} << (8 * i));
  }
  return tables;
}
inline constexpr auto kRoundTables = make_round_tables();

// Section 7.3: system parameters, and the constants whose bytes are the multiples of 7.
inline constexpr std::array<uint32_t, 4> kFk = {0xA3B1BAC6, 0x56AA3350, 0x677D9197, 0xB27022DC};
constexpr std::array<uint32_t, 32> make_ck() {
  std::array<uint32_t, 32> ck{};
  for (uint32_t i = 0; i < 128; ++i) ck[i / 4] = ck[i / 4] << 8 | (7 * i & 0xFF);
  return ck;
}
inline constexpr auto kCk = make_ck();

}  // namespace tq::sm4
