#include "crypto/sm3.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <random>
#include <string>

#include "support/bytes.hpp"
#include "support/openssl_peer.hpp"

namespace {

using test::Bytes;
using Digest = std::array<uint8_t, 32>;

struct Sm3Set {
  decltype(&TQ_sm3_starts) starts;
  decltype(&TQ_sm3_update) update;
  decltype(&TQ_sm3_finish) finish;
  decltype(&TQ_sm3) hash;
  decltype(&TQ_sm3_hmac_starts) hmac_starts;
  decltype(&TQ_sm3_hmac_update) hmac_update;
  decltype(&TQ_sm3_hmac_finish) hmac_finish;
  decltype(&TQ_sm3_hmac) hmac;
};

class Sm3 : public testing::TestWithParam<Sm3Set> {};
INSTANTIATE_TEST_SUITE_P(
    BothNames, Sm3,
    testing::Values(Sm3Set{TQ_sm3_starts, TQ_sm3_update, TQ_sm3_finish, TQ_sm3, TQ_sm3_hmac_starts,
                           TQ_sm3_hmac_update, TQ_sm3_hmac_finish, TQ_sm3_hmac},
                    Sm3Set{scp_sm3_starts, scp_sm3_update, scp_sm3_finish, scp_sm3, scp_sm3_hmac_starts,
                           scp_sm3_hmac_update, scp_sm3_hmac_finish, scp_sm3_hmac}));

int32_t len_of(const Bytes& bytes) {
  return static_cast<int32_t>(bytes.size());
}

TEST_P(Sm3, PublishedExamples) {
  std::string abcd;
  for (int i = 0; i < 16; ++i) abcd += "abcd";
  const std::pair<std::string, const char*> examples[] = {
      // GB/T 32905 appendix A
      {"abc", "66c7f0f462eeedd9d1f2d46bdc10e4e24167c4875cf2f7a2297da02b8f4ba8e0"},
      {abcd, "debe9ff92275b8a138604889c18e5a4d6fdb70e5387e5765293dcba39c0c5732"}};
  for (const auto& [text, expected] : examples) {
    Digest digest;
    GetParam().hash(test::from_text(text).data(), static_cast<int32_t>(text.size()), digest.data());
    EXPECT_EQ(test::hex(digest), expected);
  }
}

// Hash and HMAC, at once and in pieces, for every length of data and key.
TEST_P(Sm3, AgreesWithOpenSslHoweverItIsFed) {
  std::mt19937 generator(4);
  for (size_t n = 0; n <= 300; ++n) {
    const Bytes data = test::random_bytes(generator, n);
    const Bytes key = test::random_bytes(generator, n / 2);
    Digest digest;
    Digest mac;
    GetParam().hash(data.data(), len_of(data), digest.data());
    GetParam().hmac(key.data(), len_of(key), data.data(), len_of(data), mac.data());
    const std::string expected = test::hex(test::openssl_digest(EVP_sm3(), data));
    const std::string expected_mac = test::hex(test::openssl_hmac(EVP_sm3(), key, data));
    ASSERT_EQ(test::hex(digest), expected) << n;
    ASSERT_EQ(test::hex(mac), expected_mac) << n;

    TQ_SM3_CTX hash_ctx;
    TQ_SM3_CTX hmac_ctx;
    GetParam().starts(&hash_ctx);
    GetParam().hmac_starts(&hmac_ctx, key.data(), len_of(key));
    for (size_t at = 0; at < n;) {
      const Bytes piece = test::exact_copy(data.data() + at, std::min<size_t>(generator() % 150, n - at));
      GetParam().update(&hash_ctx, piece.data(), len_of(piece));
      GetParam().hmac_update(&hmac_ctx, piece.data(), len_of(piece));
      at += piece.size();
    }
    GetParam().finish(&hash_ctx, digest.data());
    GetParam().hmac_finish(&hmac_ctx, mac.data());
    ASSERT_EQ(test::hex(digest), expected) << "in pieces " << n;
    ASSERT_EQ(test::hex(mac), expected_mac) << "in pieces " << n;
  }
}

TEST(Sm3Context, LengthsBelowOneAddNothing) {
  const uint8_t byte = 'x';
  for (const int32_t length : {0, -1, std::numeric_limits<int32_t>::min()}) {
    TQ_SM3_CTX ctx;
    TQ_sm3_starts(&ctx);
    TQ_sm3_update(&ctx, &byte, length);
    EXPECT_EQ(ctx.total[0], 0U);
    Digest digest;
    TQ_sm3(length == 0 ? nullptr : &byte, length, digest.data());
    EXPECT_EQ(test::hex(digest), test::hex(test::openssl_digest(EVP_sm3(), {})));
    TQ_sm3_hmac(&byte, length, &byte, length, digest.data());
    EXPECT_EQ(test::hex(digest), test::hex(test::openssl_hmac(EVP_sm3(), {}, {})));
  }
}

// The state of a message that was never fed; its last block is written out by hand and absorbed as data.
TEST(Sm3Context, LengthOfAMessageOfGigabytes) {
  struct Case {
    uint32_t high, low;
    const char* bit_len;
  };
  const Case cases[] = {{0, 0x20000000, "0000000100000000"},
                        {0, 0xFFFFFFC0, "00000007fffffe00"},
                        {0x12345678, 0x9ABCDEC0, "91a2b3c4d5e6f600"}};
  for (const auto& c : cases) {
    Bytes last_block = test::from_hex("80");
    last_block.resize(56);
    const Bytes bit_len = test::from_hex(c.bit_len);
    last_block.insert(last_block.end(), bit_len.begin(), bit_len.end());
    TQ_SM3_CTX fed;
    TQ_sm3_starts(&fed);
    TQ_sm3_update(&fed, last_block.data(), 64);
    TQ_SM3_CTX claimed;
    TQ_sm3_starts(&claimed);
    claimed.total[0] = c.low;
    claimed.total[1] = c.high;
    Digest digest;
    TQ_sm3_finish(&claimed, digest.data());
    Bytes expected;
    for (const uint32_t word : fed.state) {
      for (const int shift : {24, 16, 8, 0}) expected.push_back(static_cast<uint8_t>(word >> shift));
    }
    EXPECT_EQ(test::hex(digest), test::hex(expected)) << c.bit_len;
  }
  TQ_SM3_CTX ctx;
  TQ_sm3_starts(&ctx);
  ctx.total[0] = 0xFFFFFFC0;
  TQ_sm3_update(&ctx, Bytes(65).data(), 65);
  EXPECT_EQ(ctx.total[0], 1U);
  EXPECT_EQ(ctx.total[1], 1U);
}

TEST(Sm3File, HashesAFile) {
  const std::string path = testing::TempDir() + "sm3_test_file";
  std::mt19937 generator(6);
  for (const size_t n : {1, 1023, 1024, 1025, 5000}) {
    const Bytes data = test::random_bytes(generator, n);
    FILE* file = std::fopen(path.c_str(), "wb");
    ASSERT_NE(file, nullptr);
    ASSERT_EQ(std::fwrite(data.data(), 1, n, file), n);
    ASSERT_EQ(std::fclose(file), 0);
    Digest digest;
    EXPECT_EQ(scp_sm3_file(path.c_str(), digest.data()), 0);
    EXPECT_EQ(test::hex(digest), test::hex(test::openssl_digest(EVP_sm3(), data))) << n;
  }
  ASSERT_EQ(std::remove(path.c_str()), 0);
  Digest digest{};
  EXPECT_EQ(scp_sm3_file(path.c_str(), digest.data()), 1);
  EXPECT_EQ(scp_sm3_file(testing::TempDir().c_str(), digest.data()), 1)
      << "a folder opens, but cannot be read";
  EXPECT_EQ(scp_sm3_file(nullptr, digest.data()), 1);
  EXPECT_EQ(digest, Digest{});
}

}  // namespace
