#include "crypto/sha1.h"

#include <gtest/gtest.h>

#include <array>

#include "support/bytes.hpp"
#include "support/openssl_peer.hpp"

namespace {

using namespace test;
using Digest = std::array<uint8_t, 20>;

std::string digest_of(const Bytes& data) {
  Digest digest{};
  EXPECT_EQ(TQSHA1Parse(data.data(), data.size(), digest.data(), 20), 20);
  return hex(digest);
}

TEST(Sha1, PublishedExamples) {
  const std::pair<std::string, const char*> examples[] = {
      // FIPS 180-4
      {"", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
      {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
      {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
       "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
      {std::string(1000000, 'a'), "34aa973cd4c4daa4f61eeb2bdbad27316534016f"}};
  for (const auto& [text, digest] : examples) EXPECT_EQ(digest_of(from_text(text)), digest);
}

TEST(Sha1, AgreesWithOpenSslHoweverItIsFed) {
  std::mt19937 generator(16);
  for (size_t n = 0; n <= 300; ++n) {
    const Bytes data = random_bytes(generator, n);
    const std::string expected = hex(openssl_digest(EVP_sha1(), data));
    ASSERT_EQ(digest_of(data), expected) << n;
    TQSHA1Context ctx;
    ASSERT_EQ(TQSHA1Reset(&ctx), shaSuccess);
    for (size_t at = 0; at < n;) {
      const Bytes piece = slice(data, at, at + std::min<size_t>(generator() % 150, n - at));
      ASSERT_EQ(TQSHA1Input(&ctx, piece.data(), piece.size()), shaSuccess);
      at += piece.size();
    }
    for (int again = 0; again < 2; ++again) {
      Digest digest{};
      ASSERT_EQ(TQSHA1Result(&ctx, digest.data()), shaSuccess);
      ASSERT_EQ(hex(digest), expected) << n;
    }
  }
}

TEST(Sha1, InnerSteps) {
  TQSHA1Context ctx;
  TQSHA1Reset(&ctx);
  TQSHA1Input(&ctx, from_text("abc").data(), 3);
  EXPECT_EQ(ctx.Message_Block_Index, 3);
  EXPECT_EQ(ctx.Length_Low, 24U);
  SHA1PadMessage(&ctx);
  EXPECT_EQ(ctx.Message_Block_Index, 0);
  EXPECT_EQ(ctx.Intermediate_Hash[0], 0xA9993E36U);

  TQSHA1Context by_block;
  TQSHA1Reset(&by_block);
  std::copy_n(ctx.Message_Block, 64, by_block.Message_Block);  // padded "abc"
  by_block.Message_Block_Index = 64;
  SHA1ProcessMessageBlock(&by_block);
  EXPECT_EQ(by_block.Message_Block_Index, 0);
  EXPECT_EQ(by_block.Intermediate_Hash[4], 0x9CD0D89DU);
}

TEST(Sha1, StatesOfAContext) {
  Digest digest{};
  TQSHA1Context ctx;
  const uint8_t two[2] = {'x', 'y'};
  EXPECT_EQ(TQSHA1Reset(nullptr), shaNull);
  TQSHA1Reset(&ctx);
  EXPECT_EQ(TQSHA1Input(nullptr, two, 1), shaNull);
  EXPECT_EQ(TQSHA1Input(&ctx, nullptr, 1), shaNull);
  EXPECT_EQ(TQSHA1Input(&ctx, nullptr, 0), shaSuccess);
  EXPECT_EQ(TQSHA1Result(nullptr, digest.data()), shaNull);
  EXPECT_EQ(TQSHA1Result(&ctx, nullptr), shaNull);

  ASSERT_EQ(TQSHA1Input(&ctx, two, 1), shaSuccess);
  ASSERT_EQ(TQSHA1Result(&ctx, digest.data()), shaSuccess);
  EXPECT_EQ(hex(ctx.Message_Block, 64), hex(Bytes(64))) << "wiped";
  EXPECT_EQ(TQSHA1Input(&ctx, two, 1), shaStateError) << "input after the digest";
  EXPECT_EQ(TQSHA1Result(&ctx, digest.data()), shaStateError);
  EXPECT_EQ(TQSHA1Reset(&ctx), shaSuccess);

  ctx.Length_High = 0xFFFFFFFF;
  ctx.Length_Low = 0xFFFFFFF0;
  EXPECT_EQ(TQSHA1Input(&ctx, two, 1), shaSuccess) << "the last byte that fits";
  EXPECT_EQ(ctx.Length_Low, 0xFFFFFFF8U);
  EXPECT_EQ(TQSHA1Input(&ctx, two, 1), shaInputTooLong);
  EXPECT_EQ(TQSHA1Input(&ctx, two, 1), shaInputTooLong);
  digest = {};
  EXPECT_EQ(TQSHA1Result(&ctx, digest.data()), shaInputTooLong);
  EXPECT_EQ(digest, Digest{});
}

TEST(Sha1, OneShotArguments) {
  Digest digest{};
  const uint8_t byte = 0;
  EXPECT_EQ(TQSHA1Parse(&byte, 1, digest.data(), 19), -1);
  EXPECT_EQ(TQSHA1Parse(&byte, 1, digest.data(), -1), -1);
  EXPECT_EQ(TQSHA1Parse(nullptr, 1, digest.data(), 20), -1);
  EXPECT_EQ(TQSHA1Parse(&byte, 1, nullptr, 20), -1);
  EXPECT_EQ(TQSHA1Parse(&byte, SIZE_MAX, digest.data(), 20), -1);
  EXPECT_EQ(digest, Digest{});
  EXPECT_EQ(TQSHA1Parse(nullptr, 0, digest.data(), 64), 20);
}

}  // namespace
