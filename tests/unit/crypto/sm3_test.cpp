#include "crypto/sm3.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>

#include "support/bytes.hpp"
#include "support/openssl_peer.hpp"

namespace {

using namespace test;
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
    GetParam().hash(from_text(text).data(), static_cast<int32_t>(text.size()), digest.data());
    EXPECT_EQ(hex(digest), expected);
  }
}

// Hash and HMAC, at once and in pieces, for every length of data and key.
TEST_P(Sm3, AgreesWithOpenSslHoweverItIsFed) {
  const Sm3Set& sm3 = GetParam();
  std::mt19937 generator(4);
  for (size_t n = 0; n <= 300; ++n) {
    const Bytes data = random_bytes(generator, n);
    const Bytes key = random_bytes(generator, n / 2);
    const std::string expected =
        hex(openssl_digest(EVP_sm3(), data)) + hex(openssl_hmac(EVP_sm3(), key, data));
    Digest digest;
    Digest mac;
    sm3.hash(data.data(), len_of(data), digest.data());
    sm3.hmac(key.data(), len_of(key), data.data(), len_of(data), mac.data());
    ASSERT_EQ(hex(digest) + hex(mac), expected) << n;

    TQ_SM3_CTX hash_ctx;
    TQ_SM3_CTX hmac_ctx;
    sm3.starts(&hash_ctx);
    sm3.hmac_starts(&hmac_ctx, key.data(), len_of(key));
    for (size_t at = 0; at < n;) {
      const Bytes piece = slice(data, at, at + std::min<size_t>(generator() % 150, n - at));
      sm3.update(&hash_ctx, piece.data(), len_of(piece));
      sm3.hmac_update(&hmac_ctx, piece.data(), len_of(piece));
      at += piece.size();
    }
    sm3.finish(&hash_ctx, digest.data());
    sm3.hmac_finish(&hmac_ctx, mac.data());
    ASSERT_EQ(hex(digest) + hex(mac), expected) << "in pieces " << n;
  }
}

TEST(Sm3Context, LengthsBelowOneAddNothing) {
  const uint8_t byte = 'x';
  for (const int32_t length : {0, -1, INT32_MIN}) {
    Digest digest;
    TQ_sm3(length == 0 ? nullptr : &byte, length, digest.data());
    EXPECT_EQ(hex(digest), hex(openssl_digest(EVP_sm3(), {})));
    TQ_sm3_hmac(&byte, length, &byte, length, digest.data());
    EXPECT_EQ(hex(digest), hex(openssl_hmac(EVP_sm3(), {}, {})));
  }
}

// The state of a message that was never fed; its last block is written out by hand and absorbed as data.
TEST(Sm3Context, LengthOfAMessageOfGigabytes) {
  Bytes last_block = from_hex("80");
  last_block.resize(56);
  last_block = last_block + from_hex("91a2b3c4d5e6f600");  // bits
  TQ_SM3_CTX fed;
  TQ_sm3_starts(&fed);
  TQ_sm3_update(&fed, last_block.data(), 64);
  TQ_SM3_CTX claimed;
  TQ_sm3_starts(&claimed);
  claimed.total[0] = 0x9ABCDEC0;
  claimed.total[1] = 0x12345678;
  Digest digest;
  TQ_sm3_finish(&claimed, digest.data());
  Bytes expected;
  for (const uint32_t word : fed.state) expected = expected + be(word, 4);
  EXPECT_EQ(hex(digest), hex(expected));

  TQ_sm3_starts(&claimed);
  claimed.total[0] = 0xFFFFFFC0;
  TQ_sm3_update(&claimed, Bytes(65).data(), 65);
  EXPECT_EQ(claimed.total[0], 1U);
  EXPECT_EQ(claimed.total[1], 1U);
}

TEST(Sm3File, HashesAFile) {
  const std::string path = testing::TempDir() + "sm3_test_file";
  for (const size_t n : {1, 1024, 1025, 5000}) {
    const Bytes data(n, 0x6A);
    FILE* file = std::fopen(path.c_str(), "wb");
    ASSERT_NE(file, nullptr);
    ASSERT_EQ(std::fwrite(data.data(), 1, n, file), n);
    ASSERT_EQ(std::fclose(file), 0);
    Digest digest;
    EXPECT_EQ(scp_sm3_file(path.c_str(), digest.data()), 0);
    EXPECT_EQ(hex(digest), hex(openssl_digest(EVP_sm3(), data))) << n;
  }
  ASSERT_EQ(std::remove(path.c_str()), 0);
  Digest digest{};
  // Not there; a folder, which opens but cannot be read; none.
  for (const char* bad : {path.c_str(), "/", static_cast<const char*>(nullptr)})
    EXPECT_EQ(scp_sm3_file(bad, digest.data()), 1);
  EXPECT_EQ(digest, Digest{});
}

}  // namespace
