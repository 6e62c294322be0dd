// The tables of DES: those of FIPS 46-3, which are its definition, and the round tables built from them.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

namespace tq::des {

// A half block in expanded form, the E of the standard applied: eight groups of six bits, one in the low bits
// of each byte. The order of the groups is the one that two rotations of the half block give.
inline constexpr std::array<size_t, 8> kGroupInByte = {0, 6, 4, 2, 1, 7, 5, 3};

inline constexpr uint32_t kGroupBits = 0x3F3F3F3F;
inline constexpr uint64_t kExpandedBits = uint64_t{kGroupBits} << 32 | kGroupBits;

constexpr uint64_t expand(uint32_t half) {
  const uint32_t even = std::rotl(half, 5) & kGroupBits;
  const uint32_t odd = std::rotl(half, 9) & kGroupBits;
  return uint64_t{odd} << 32 | even;
}

// Back from the expanded form: the two bits of each byte that the even groups lack come from the odd ones.
constexpr uint32_t contract(uint64_t expanded) {
  const auto even = static_cast<uint32_t>(expanded);
  const auto odd = static_cast<uint32_t>(expanded >> 32);
  return std::rotr(even | (std::rotr(odd, 4) & ~kGroupBits), 5);
}

static_assert(contract(expand(0x80000001)) == 0x80000001 && contract(expand(0x12345678)) == 0x12345678);

// S1 to S8: four rows of 16.
inline constexpr std::array<std::array<uint8_t, 64>, 8> kSbox = {{
    {14, 4,  13, 1, 2,  15, 11, 8,  3,  10, 6,  12, 5,  9,  0, 7,  //
     0,  15, 7,  4, 14, 2,  13, 1,  10, 6,  12, 11, 9,  5,  3, 8,  //
     4,  1,  14, 8, 13, 6,  2,  11, 15, 12, 9,  7,  3,  10, 5, 0,  //
     15, 12, 8,  2, 4,  9,  1,  7,  5,  11, 3,  14, 10, 0,  6, 13},
    {15, 1,  8,  14, 6,  11, 3,  4,  9,  7, 2,  13, 12, 0, 5,  10,  //
     3,  13, 4,  7,  15, 2,  8,  14, 12, 0, 1,  10, 6,  9, 11, 5,   //
     0,  14, 7,  11, 10, 4,  13, 1,  5,  8, 12, 6,  9,  3, 2,  15,  //
     13, 8,  10, 1,  3,  15, 4,  2,  11, 6, 7,  12, 0,  5, 14, 9},
    {10, 0,  9,  14, 6, 3,  15, 5,  1,  13, 12, 7,  11, 4,  2,  8,  //
     13, 7,  0,  9,  3, 4,  6,  10, 2,  8,  5,  14, 12, 11, 15, 1,  //
     13, 6,  4,  9,  8, 15, 3,  0,  11, 1,  2,  12, 5,  10, 14, 7,  //
     1,  10, 13, 0,  6, 9,  8,  7,  4,  15, 14, 3,  11, 5,  2,  12},
    {7,  13, 14, 3, 0,  6,  9,  10, 1,  2, 8, 5,  11, 12, 4,  15,  //
     13, 8,  11, 5, 6,  15, 0,  3,  4,  7, 2, 12, 1,  10, 14, 9,   //
     10, 6,  9,  0, 12, 11, 7,  13, 15, 1, 3, 14, 5,  2,  8,  4,   //
     3,  15, 0,  6, 10, 1,  13, 8,  9,  4, 5, 11, 12, 7,  2,  14},
    {2,  12, 4,  1,  7,  10, 11, 6,  8,  5,  3,  15, 13, 0, 14, 9,   //
     14, 11, 2,  12, 4,  7,  13, 1,  5,  0,  15, 10, 3,  9, 8,  6,   //
     4,  2,  1,  11, 10, 13, 7,  8,  15, 9,  12, 5,  6,  3, 0,  14,  //
     11, 8,  12, 7,  1,  14, 2,  13, 6,  15, 0,  9,  10, 4, 5,  3},
    {12, 1,  10, 15, 9, 2,  6,  8,  0,  13, 3,  4,  14, 7,  5,  11,  //
     10, 15, 4,  2,  7, 12, 9,  5,  6,  1,  13, 14, 0,  11, 3,  8,   //
     9,  14, 15, 5,  2, 8,  12, 3,  7,  0,  4,  10, 1,  13, 11, 6,   //
     4,  3,  2,  12, 9, 5,  15, 10, 11, 14, 1,  7,  6,  0,  8,  13},
    {4,  11, 2,  14, 15, 0, 8,  13, 3,  12, 9, 7,  5,  10, 6, 1,  //
     13, 0,  11, 7,  4,  9, 1,  10, 14, 3,  5, 12, 2,  15, 8, 6,  //
     1,  4,  11, 13, 12, 3, 7,  14, 10, 15, 6, 8,  0,  5,  9, 2,  //
     6,  11, 13, 8,  1,  4, 10, 7,  9,  5,  0, 15, 14, 2,  3, 12},
    {13, 2,  8,  4, 6,  15, 11, 1,  10, 9,  3,  14, 5,  0,  12, 7,  //
     1,  15, 13, 8, 10, 3,  7,  4,  12, 5,  6,  11, 0,  14, 9,  2,  //
     7,  11, 4,  1, 9,  12, 14, 2,  0,  6,  10, 13, 15, 3,  5,  8,  //
     2,  1,  14, 7, 4,  10, 8,  13, 15, 12, 9,  0,  3,  5,  6,  11},
}};

// P: output bit i is input bit kP[i], counted from 1, the most significant bit first.
inline constexpr std::array<uint8_t, 32> kP = {16, 7, 20, 21, 29, 12, 28, 17, 1,  15, 23, 26, 5,  18, 31, 10,
                                               2,  8, 24, 14, 32, 27, 3,  9,  19, 13, 30, 6,  22, 11, 4,  25};

// The key schedule's choices, counted from 1 in the 64 bits of the key and in the 56 bits of C and D, and its
// shifts.
inline constexpr std::array<uint8_t, 56> kPermutedChoice1 = {
    57, 49, 41, 33, 25, 17, 9,  1,  58, 50, 42, 34, 26, 18, 10, 2,  59, 51, 43,
    35, 27, 19, 11, 3,  60, 52, 44, 36, 63, 55, 47, 39, 31, 23, 15, 7,  62, 54,
    46, 38, 30, 22, 14, 6,  61, 53, 45, 37, 29, 21, 13, 5,  28, 20, 12, 4};
inline constexpr std::array<uint8_t, 48> kPermutedChoice2 = {
    14, 17, 11, 24, 1,  5,  3,  28, 15, 6,  21, 10, 23, 19, 12, 4,  26, 8,  16, 7,  27, 20, 13, 2,
    41, 52, 31, 37, 47, 55, 30, 40, 51, 45, 33, 48, 44, 49, 39, 56, 34, 53, 46, 42, 50, 36, 29, 32};
inline constexpr std::array<uint8_t, 16> kShifts = {1, 1, 2, 2, 2, 2, 2, 2, 1, 2, 2, 2, 2, 2, 2, 1};

// Gathers bits of a word of `width` bits by a table that counts them from 1, the most significant first.
template <size_t N>
constexpr uint64_t choose_bits(uint64_t word, size_t width, const std::array<uint8_t, N>& choice) {
  uint64_t chosen = 0;
  for (const uint8_t bit : choice) chosen = chosen << 1 | (word >> (width - bit) & 1);
  return chosen;
}

// A choice of bits as look-ups: tables[i][x] is what the four bits x in nibble i of a word, the lowest first,
// contribute.
template <size_t kNumNibbles>
using NibbleTables = std::array<std::array<uint64_t, 16>, kNumNibbles>;

template <size_t kNumNibbles, typename Choice>
constexpr NibbleTables<kNumNibbles> tabulate(Choice choice) {
  NibbleTables<kNumNibbles> tables{};
  for (size_t i = 0; i < kNumNibbles; ++i) {
    for (size_t x = 0; x < 16; ++x) tables[i][x] = choice(uint64_t{x} << (4 * i));
  }
  return tables;
}

template <size_t kNumNibbles>
constexpr uint64_t look_up(const NibbleTables<kNumNibbles>& tables, uint64_t word) {
  uint64_t chosen = 0;
  for (const auto& table : tables) {
    chosen |= table[word & 0xF];
    word >>= 4;
  }
  return chosen;
}

// From the 64 bits of the key to C and D, 28 bits each.
inline constexpr auto kHalvesOfKey =
    tabulate<16>([](uint64_t key) { return choose_bits(key, 64, kPermutedChoice1); });

// From C and D to the round key, whose groups stand in bytes like those of an expanded half.
inline constexpr auto kRoundKeyOfHalves = tabulate<14>([](uint64_t halves) {
  const uint64_t chosen = choose_bits(halves, 56, kPermutedChoice2);
  uint64_t round_key = 0;
  for (size_t i = 0; i < kGroupInByte.size(); ++i) {
    round_key |= (chosen >> (6 * (7 - kGroupInByte[i])) & 0x3F) << (8 * i);
  }
  return round_key;
});

// kRoundTables[i][x]: the six bits x in byte i of an expanded half go through their S-box, P and E. So a
// round of the cipher is eight look-ups, and the result is in expanded form again.
constexpr std::array<std::array<uint64_t, 64>, 8> make_round_tables() {
  std::array<std::array<uint64_t, 64>, 8> tables{};
  for (size_t i = 0; i < tables.size(); ++i) {
    const size_t group = kGroupInByte[i];
    for (size_t x = 0; x < 64; ++x) {
      const size_t row = (x >> 4 & 2) | (x & 1);
      const size_t column = x >> 1 & 0xF;
      const uint64_t substituted = uint64_t{kSbox[group][16 * row + column]} << (4 * (7 - group));
      tables[i][x] = expand(static_cast<uint32_t>(choose_bits(substituted, 32, kP)));
    }
  }
  return tables;
}
inline constexpr auto kRoundTables = make_round_tables();

}  // namespace tq::des
