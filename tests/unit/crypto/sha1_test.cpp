#include "crypto/sha1.h"

#include <gtest/gtest.h>

#include <array>
#include <limits>
#include <random>
#include <string>

#include "support/bytes.hpp"
#include "support/openssl_peer.hpp"

namespace {

using test::Bytes;
using Digest = std::array<uint8_t, 20>;

std::string digest_of(const Bytes& data) {
  Digest digest{};
  EXPECT_EQ(TQSHA1Parse(data.data(), data.size(), digest.data(), 20), 20);
  return test::hex(digest);
}

TEST(Sha1, PublishedExamples) {
  const std::pair<std::string, const char*> examples[] = {
      // FIPS 180-4
      {"", "da39a3ee5e6b4b0d3255bfef95601890afd80709"},
      {"abc", "a9993e364706816aba3e25717850c26c9cd0d89d"},
      {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
       "84983e441c3bd26ebaae4aa1f95129e5e54670f1"},
      {std::string(1000000, 'a'), "34aa973cd4c4daa4f61eeb2bdbad27316534016f"}};
  for (const auto& [text, digest] : examples) EXPECT_EQ(digest_of(test::from_text(text)), digest);
}

TEST(Sha1, AgreesWithOpenSslHoweverItIsFed) {
  std::mt19937 generator(16);
  for (size_t n = 0; n <= 300; ++n) {
    const Bytes data = test::random_bytes(generator, n);
    const std::string expected = test::hex(test::openssl_digest(EVP_sha1(), data));
    ASSERT_EQ(digest_of(data), expected) << n;
    TQSHA1Context ctx;
    ASSERT_EQ(TQSHA1Reset(&ctx), shaSuccess);
    for (size_t at = 0; at < n;) {
      const Bytes piece = test::exact_copy(data.data() + at, std::min<size_t>(generator() % 150, n - at));
      ASSERT_EQ(TQSHA1Input(&ctx, piece.data(), piece.size()), shaSuccess);
      at += piece.size();
    }
    for (int again = 0; again < 2; ++again) {
      Digest digest{};
      ASSERT_EQ(TQSHA1Result(&ctx, digest.data()), shaSuccess);
      ASSERT_EQ(test::hex(digest), expected) << n;
    }
  }
}

TEST(Sha1, InnerSteps) {
  const Bytes data = test::from_text("abc");
  TQSHA1Context ctx;
  TQSHA1Reset(&ctx);
  TQSHA1Input(&ctx, data.data(), data.size());
  EXPECT_EQ(ctx.Message_Block_Index, 3);
  EXPECT_EQ(ctx.Length_Low, 24U);
  SHA1PadMessage(&ctx);
  EXPECT_EQ(ctx.Message_Block_Index, 0);
  EXPECT_EQ(ctx.Intermediate_Hash[0], 0xA9993E36U);
  EXPECT_EQ(ctx.Intermediate_Hash[4], 0x9CD0D89DU);

  TQSHA1Context by_block;
  TQSHA1Reset(&by_block);
  std::copy(std::begin(ctx.Message_Block), std::end(ctx.Message_Block),
            by_block.Message_Block);  // padded "abc"
  by_block.Message_Block_Index = 64;
  SHA1ProcessMessageBlock(&by_block);
  EXPECT_EQ(by_block.Message_Block_Index, 0);
  EXPECT_EQ(by_block.Intermediate_Hash[2], 0xBA3E2571U);
}

TEST(Sha1, StatesOfAContext) {
  Digest digest{};
  TQSHA1Context ctx;
  const uint8_t byte = 'x';
  EXPECT_EQ(TQSHA1Reset(nullptr), shaNull);
  TQSHA1Reset(&ctx);
  EXPECT_EQ(TQSHA1Input(nullptr, &byte, 1), shaNull);
  EXPECT_EQ(TQSHA1Input(&ctx, nullptr, 1), shaNull);
  EXPECT_EQ(TQSHA1Input(&ctx, nullptr, 0), shaSuccess);
  EXPECT_EQ(TQSHA1Result(nullptr, digest.data()), shaNull);
  EXPECT_EQ(TQSHA1Result(&ctx, nullptr), shaNull);

  ASSERT_EQ(TQSHA1Input(&ctx, &byte, 1), shaSuccess);
  ASSERT_EQ(TQSHA1Result(&ctx, digest.data()), shaSuccess);
  EXPECT_EQ(Bytes(std::begin(ctx.Message_Block), std::end(ctx.Message_Block)), Bytes(64)) << "wiped";
  EXPECT_EQ(TQSHA1Input(&ctx, &byte, 1), shaStateError) << "input after the digest";
  EXPECT_EQ(TQSHA1Result(&ctx, digest.data()), shaStateError);
  EXPECT_EQ(TQSHA1Reset(&ctx), shaSuccess);
  EXPECT_EQ(TQSHA1Input(&ctx, &byte, 1), shaSuccess) << "as new";
}

TEST(Sha1, LengthOverflow) {
  const Bytes two(2);
  TQSHA1Context ctx;
  TQSHA1Reset(&ctx);
  ctx.Length_High = 0xFFFFFFFF;
  ctx.Length_Low = 0xFFFFFFF0;
  EXPECT_EQ(TQSHA1Input(&ctx, two.data(), 1), shaSuccess) << "the last byte that fits";
  EXPECT_EQ(ctx.Length_Low, 0xFFFFFFF8U);
  EXPECT_EQ(TQSHA1Input(&ctx, two.data(), 1), shaInputTooLong);
  EXPECT_NE(ctx.Corrupted, 0);
  EXPECT_EQ(TQSHA1Input(&ctx, two.data(), 1), shaInputTooLong);
  Digest digest{};
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
  EXPECT_EQ(TQSHA1Parse(&byte, std::numeric_limits<size_t>::max(), digest.data(), 20), -1);
  EXPECT_EQ(digest, Digest{});
  EXPECT_EQ(TQSHA1Parse(nullptr, 0, digest.data(), 64), 20);
  EXPECT_EQ(test::hex(digest), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
}

}  // namespace
