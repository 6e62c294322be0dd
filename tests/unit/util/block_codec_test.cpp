#include "util/block_codec.h"

#include <gtest/gtest.h>

#include <numeric>

#include "support/bytes.hpp"
#include "util/block_codec.hpp"

namespace {

using namespace test;

struct Codec {
  decltype(&tq1_encode) encode;
  decltype(&tq1_decode) decode;
};
const Codec kCodecs[] = {{tq1_encode, tq1_decode}, {tq2_encode, tq2_decode}};

constexpr std::array<uint8_t, 8> kKey = {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF};

// The bytes 10 11 12 ..., worked out apart from this code, from the description of the encoding.
const struct {
  size_t plain_len;
  const char* encoded;
} kVectors[] = {
    {0, "092b4d6f81a3c5e7"},
    {3, "113257628caec8ea"},
    {8, "092b4d6f81a3c5e7193a5f7c95b6d3f0"},
    {16, "092b4d6f81a3c5e7113257749dbedbf80123456789abcdef"},
    {17, "212442608eaccae8393d587b92b1d4f7292c4a6886a4c2e0"},
    {40, "092b4d6f81a3c5e7391a7f5cb596f3d01133557799bbddff31127754bd9efbd8290b6d4fa183e5c7391a7f5cb596f3d0"},
};

TEST(BlockCodec, VectorsInPlaceAndAtCompileTime) {
  for (const auto& codec : kCodecs) {
    for (const auto& v : kVectors) {
      const Bytes encoded = from_hex(v.encoded);
      Bytes plain(v.plain_len);
      std::iota(plain.begin(), plain.end(), uint8_t{0x10});
      Bytes room = plain;
      room.resize(encoded.size());
      EXPECT_EQ(codec.encode(room.data(), len(plain), kKey.data(), room.data()),
                static_cast<int32_t>(encoded.size()));
      EXPECT_EQ(hex(room), v.encoded);
      EXPECT_EQ(codec.decode(room.data(), len(room), kKey.data(), room.data()),
                static_cast<int32_t>(v.plain_len));
      EXPECT_EQ(exact_copy(room, v.plain_len), plain);
    }
  }
  constexpr std::array<uint8_t, 3> plain = {0x10, 0x11, 0x12};
  constexpr auto encoded = tq::block_encode(plain, kKey);
  EXPECT_EQ(hex(encoded), kVectors[1].encoded);
}

TEST(BlockCodec, PaddingIsBelievedAsFarAsItFits) {
  const struct {
    size_t num_blocks;
    uint8_t padding;
    int32_t result;
  } cases[] = {{1, 0, 8}, {1, 8, 0}, {1, 9, -1}, {2, 16, 0}, {2, 17, -1}, {32, 255, 1}, {31, 255, -1}};
  for (const auto& c : cases) {
    Bytes encoded;  // of zeros, but for the last byte
    for (size_t i = 0; i < c.num_blocks; ++i) {
      encoded.insert(encoded.end(), kKey.begin(), kKey.end());
      encoded.back() ^= c.padding;  // the last plain block comes first, and every block carries it on
    }
    Bytes out(encoded.size(), 0xEE);
    EXPECT_EQ(tq1_decode(encoded.data(), len(encoded), kKey.data(), out.data()), c.result) << int{c.padding};
    EXPECT_TRUE(c.result >= 0 || out == Bytes(encoded.size(), 0xEE));
  }
}

TEST(BlockCodec, BadArgumentsAreRefused) {
  Bytes block(16);
  uint8_t* const b = block.data();
  const uint8_t* const key = kKey.data();
  for (const uint32_t n : {0U, 1U, 7U, 12U, 15U, 0xFFFFFFF8U, 0x80000000U}) {
    EXPECT_EQ(tq1_decode(b, n, key, b), -1) << n;
  }
  for (const uint32_t n : {0x7FFFFFF8U, 0x80000000U, 0xFFFFFFFFU})
    EXPECT_EQ(tq1_encode(b, n, key, b), -1) << n;
  for (const auto code : {tq1_encode, tq1_decode}) {
    EXPECT_EQ(code(nullptr, 8, key, b), -1);
    EXPECT_EQ(code(b, 8, nullptr, b), -1);
    EXPECT_EQ(code(b, 8, key, nullptr), -1);
  }
  EXPECT_EQ(block, Bytes(16));
}

}  // namespace
