#include "util/block_codec.h"

#include <gtest/gtest.h>

#include <numeric>

#include "support/bytes.hpp"
#include "util/block_codec.hpp"

namespace {

using test::Bytes;

struct Codec {
  decltype(&tq1_encode) encode;
  decltype(&tq1_decode) decode;
};
const Codec kCodecs[] = {{tq1_encode, tq1_decode}, {tq2_encode, tq2_decode}};

constexpr std::array<uint8_t, 8> kKey = {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF};

// The bytes 10 11 12 ..., worked out apart from this code, from the description of the encoding.
struct Vector {
  size_t plain_len;
  const char* encoded;
};
const Vector kVectors[] = {
    {0, "092b4d6f81a3c5e7"},
    {3, "113257628caec8ea"},
    {8, "092b4d6f81a3c5e7193a5f7c95b6d3f0"},
    {16, "092b4d6f81a3c5e7113257749dbedbf80123456789abcdef"},
    {17, "212442608eaccae8393d587b92b1d4f7292c4a6886a4c2e0"},
    {40, "092b4d6f81a3c5e7391a7f5cb596f3d01133557799bbddff31127754bd9efbd8290b6d4fa183e5c7391a7f5cb596f3d0"},
};

Bytes counted_bytes(size_t n) {
  Bytes bytes(n);
  std::iota(bytes.begin(), bytes.end(), uint8_t{0x10});
  return bytes;
}

TEST(BlockCodec, VectorsInPlace) {
  for (const auto& codec : kCodecs) {
    for (const auto& v : kVectors) {
      const Bytes encoded = test::from_hex(v.encoded);
      Bytes room = counted_bytes(v.plain_len);
      room.resize(encoded.size());
      EXPECT_EQ(codec.encode(room.data(), static_cast<uint32_t>(v.plain_len), kKey.data(), room.data()),
                static_cast<int32_t>(encoded.size()));
      EXPECT_EQ(test::hex(room), v.encoded);
      EXPECT_EQ(codec.decode(room.data(), static_cast<uint32_t>(room.size()), kKey.data(), room.data()),
                static_cast<int32_t>(v.plain_len));
      room.resize(v.plain_len);
      EXPECT_EQ(room, counted_bytes(v.plain_len));
    }
  }
}

TEST(BlockCodec, CompileTimeFormIsTheSame) {
  constexpr std::array<uint8_t, 16> plain = {0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17,
                                             0x18, 0x19, 0x1A, 0x1B, 0x1C, 0x1D, 0x1E, 0x1F};
  constexpr auto encoded = tq::block_encode(plain, kKey);
  EXPECT_EQ(test::hex(encoded), kVectors[3].encoded);
}

// An encoded text of one or more zero blocks whose last plain byte is `padding`.
Bytes encoded_with_padding(size_t num_blocks, uint8_t padding) {
  Bytes encoded;
  for (size_t i = 0; i < num_blocks; ++i) {
    encoded.insert(encoded.end(), kKey.begin(), kKey.end());
    encoded.back() ^= padding;  // the last plain block comes first, and every block carries it on
  }
  return encoded;
}

TEST(BlockCodec, PaddingIsBelievedAsFarAsItFits) {
  struct Case {
    size_t num_blocks;
    uint8_t padding;
    int32_t result;
  };
  const Case cases[] = {{1, 0, 8},  {1, 8, 0},   {1, 9, -1},   {1, 255, -1},
                        {2, 16, 0}, {2, 17, -1}, {32, 255, 1}, {31, 255, -1}};
  for (const auto& c : cases) {
    const Bytes encoded = encoded_with_padding(c.num_blocks, c.padding);
    Bytes out(encoded.size(), 0xEE);
    EXPECT_EQ(tq1_decode(encoded.data(), static_cast<uint32_t>(encoded.size()), kKey.data(), out.data()),
              c.result)
        << c.num_blocks << " blocks, padding " << int{c.padding};
    if (c.result < 0) {
      EXPECT_EQ(out, Bytes(encoded.size(), 0xEE));
    }
  }
}

TEST(BlockCodec, BadArgumentsAreRefused) {
  const Bytes block(16);
  Bytes out(16, 0xEE);
  for (const uint32_t n : {0U, 1U, 7U, 12U, 15U, 0xFFFFFFF8U, 0x80000000U}) {
    EXPECT_EQ(tq1_decode(block.data(), n, kKey.data(), out.data()), -1) << n;
  }
  for (const uint32_t n : {0x7FFFFFF8U, 0x80000000U, 0xFFFFFFFFU}) {
    EXPECT_EQ(tq1_encode(block.data(), n, kKey.data(), out.data()), -1) << n;
  }
  EXPECT_EQ(tq1_encode(nullptr, 1, kKey.data(), out.data()), -1);
  EXPECT_EQ(tq1_encode(block.data(), 1, nullptr, out.data()), -1);
  EXPECT_EQ(tq1_encode(block.data(), 1, kKey.data(), nullptr), -1);
  EXPECT_EQ(tq1_decode(nullptr, 8, kKey.data(), out.data()), -1);
  EXPECT_EQ(tq1_decode(block.data(), 8, nullptr, out.data()), -1);
  EXPECT_EQ(tq1_decode(block.data(), 8, kKey.data(), nullptr), -1);
  EXPECT_EQ(out, Bytes(16, 0xEE));
}

}  // namespace
