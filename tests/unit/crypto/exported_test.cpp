// Edges of the exported functions of ciphers and hashes: what OpenSSL has no word for.
#include <gtest/gtest.h>
#define OPENSSL_SUPPRESS_DEPRECATED  // the parity and weak-key checks have no newer form
#include <openssl/des.h>

#include <array>
#include <cstdio>
#include <numeric>

#include "crypto/des.h"
#include "crypto/sha1.h"
#include "crypto/sm3.h"
#include "crypto/sm4.h"
#include "support/bytes.hpp"
#include "support/openssl_peer.hpp"

namespace {

using namespace test;
using Sha1Digest = std::array<uint8_t, 20>;
using Sm3Digest = std::array<uint8_t, 32>;

// A begun block counts as a whole one.
TEST(Sm4, LengthsThatAreNoWholeBlocks) {
  const Bytes key(16, 0x31);
  TQ_SM4_CTX ctx;
  TQ_sm4_setkey_enc(&ctx, key.data());
  for (int32_t length = -17; length <= 66; ++length) {
    const Bytes zeros(static_cast<size_t>(length < 1 ? 0 : (length + 15) / 16 * 16));
    Bytes ecb = zeros;
    Bytes cbc = zeros;
    Bytes iv(16);
    TQ_sm4_crypt_ecb(&ctx, 1, length, ecb.data(), ecb.data());
    TQ_sm4_crypt_cbc(&ctx, 1, length, iv.data(), cbc.data(), cbc.data());
    EXPECT_EQ(ecb, openssl_cipher(EVP_sm4_ecb(), true, key, {}, zeros)) << length;
    EXPECT_EQ(cbc, openssl_cipher(EVP_sm4_cbc(), true, key, Bytes(16), zeros)) << length;
  }
}

TEST(Des, BadLengthsChangeNothing) {
  const Bytes key(24, 0x31);
  Bytes data(32, 0xEE);
  Bytes iv(8, 0xDD);
  TQ_DES_CTX one;
  TQ_DES3_CTX three;
  tq_des_setkey_enc(&one, key.data());
  tq_des3_set3key_enc(&three, key.data());
  for (const int32_t length : {12, 1, 7, 9, -1, -8, INT32_MIN}) {
    for (const int32_t mode : {1, 0}) {
      EXPECT_EQ(tq_des_crypt_cbc(&one, mode, length, iv.data(), data.data(), data.data()), -50) << length;
      EXPECT_EQ(tq_des3_crypt_cbc(&three, mode, length, iv.data(), data.data(), data.data()), -50) << length;
    }
  }
  EXPECT_EQ(tq_des3_crypt_cbc(&three, 1, 0, iv.data(), nullptr, nullptr), 0);
  EXPECT_EQ(data + iv, Bytes(32, 0xEE) + Bytes(8, 0xDD));

  tq_des_init(&one);
  tq_des3_init(&three);
  EXPECT_EQ(std::accumulate(one.sk, one.sk + 32, 0U) + std::accumulate(three.sk, three.sk + 96, 0U), 0U);
  tq_des_setkey_enc(&one, key.data());
  tq_des3_set3key_enc(&three, key.data());
  tq_des_free(&one);
  tq_des3_free(&three);
  EXPECT_EQ(std::accumulate(one.sk, one.sk + 32, 0U) + std::accumulate(three.sk, three.sk + 96, 0U), 0U);
  tq_des_free(nullptr);
  tq_des3_free(nullptr);
}

TEST(Des, Parity) {
  std::mt19937 generator(15);
  for (int i = 0; i < 1000; ++i) {
    Bytes key = random_bytes(generator, 8);
    Bytes expected = key;
    DES_set_odd_parity(reinterpret_cast<DES_cblock*>(expected.data()));
    EXPECT_EQ(tq_des_key_check_key_parity(key.data()), key == expected ? 0 : 1);
    tq_des_key_set_parity(key.data());
    EXPECT_EQ(key, expected);
    EXPECT_EQ(tq_des_key_check_key_parity(key.data()), 0);
    key[generator() % 8] ^= static_cast<uint8_t>(1 << generator() % 8);
    EXPECT_EQ(tq_des_key_check_key_parity(key.data()), 1);
  }
}

// The halves C and D of a weak or semi-weak key are all zeros, all ones or alternating, which makes bytes of
// two kinds.
TEST(Des, WeakKeys) {
  constexpr uint8_t head[] = {0x01, 0x1F, 0xE0, 0xFE};
  constexpr uint8_t tail[] = {0x01, 0x0E, 0xF1, 0xFE};
  for (size_t i = 0; i < 16; ++i) {
    const size_t a = i / 4;
    const size_t b = i % 4;
    Bytes key = {head[a], head[b], head[a], head[b], tail[a], tail[b], tail[a], tail[b]};
    ASSERT_EQ(DES_is_weak_key(reinterpret_cast<DES_cblock*>(key.data())), 1);
    EXPECT_EQ(tq_des_key_check_weak(key.data()), 1) << hex(key);
    for (size_t bit = 0; bit < 64; ++bit) {
      Bytes other = key;
      other[bit / 8] ^= static_cast<uint8_t>(1U << bit % 8);
      EXPECT_EQ(tq_des_key_check_weak(other.data()), 0) << hex(other);
    }
  }
}

TEST(Sha1, StatesOfAContext) {
  Sha1Digest digest{};
  TQSHA1Context ctx;
  const uint8_t abc[] = {'a', 'b', 'c'};
  EXPECT_EQ(TQSHA1Reset(nullptr), shaNull);
  TQSHA1Reset(&ctx);
  EXPECT_EQ(TQSHA1Input(nullptr, abc, 1), shaNull);
  EXPECT_EQ(TQSHA1Input(&ctx, nullptr, 1), shaNull);
  EXPECT_EQ(TQSHA1Input(&ctx, nullptr, 0), shaSuccess);
  EXPECT_EQ(TQSHA1Result(nullptr, digest.data()), shaNull);
  EXPECT_EQ(TQSHA1Result(&ctx, nullptr), shaNull);
  ASSERT_EQ(TQSHA1Input(&ctx, abc, 3), shaSuccess);
  EXPECT_EQ(ctx.Message_Block_Index, 3);
  EXPECT_EQ(ctx.Length_Low, 24U);

  TQSHA1Context by_hand = ctx;
  SHA1PadMessage(&by_hand);
  EXPECT_EQ(by_hand.Message_Block_Index, 0);
  EXPECT_EQ(by_hand.Intermediate_Hash[0], 0xA9993E36U);
  TQSHA1Reset(&by_hand);  // the padded block is still there
  by_hand.Message_Block_Index = 64;
  SHA1ProcessMessageBlock(&by_hand);
  EXPECT_EQ(by_hand.Message_Block_Index, 0);
  EXPECT_EQ(by_hand.Intermediate_Hash[4], 0x9CD0D89DU);

  for (int again = 0; again < 2; ++again) {
    ASSERT_EQ(TQSHA1Result(&ctx, digest.data()), shaSuccess);
    EXPECT_EQ(hex(digest), "a9993e364706816aba3e25717850c26c9cd0d89d");
  }
  EXPECT_EQ(hex(ctx.Message_Block, 64), hex(Bytes(64))) << "wiped";
  EXPECT_EQ(TQSHA1Input(&ctx, abc, 1), shaStateError) << "input after the digest";
  EXPECT_EQ(TQSHA1Result(&ctx, digest.data()), shaStateError);
  EXPECT_EQ(TQSHA1Reset(&ctx), shaSuccess);

  ctx.Length_High = 0xFFFFFFFF;
  ctx.Length_Low = 0xFFFFFFF0;
  EXPECT_EQ(TQSHA1Input(&ctx, abc, 1), shaSuccess) << "the last byte that fits";
  EXPECT_EQ(ctx.Length_Low, 0xFFFFFFF8U);
  for (int again = 0; again < 2; ++again) EXPECT_EQ(TQSHA1Input(&ctx, abc, 1), shaInputTooLong);
  digest = {};
  EXPECT_EQ(TQSHA1Result(&ctx, digest.data()), shaInputTooLong);

  EXPECT_EQ(TQSHA1Parse(abc, 1, digest.data(), 19), -1);
  EXPECT_EQ(TQSHA1Parse(abc, 1, digest.data(), -1), -1);
  EXPECT_EQ(TQSHA1Parse(nullptr, 1, digest.data(), 20), -1);
  EXPECT_EQ(TQSHA1Parse(abc, 1, nullptr, 20), -1);
  EXPECT_EQ(TQSHA1Parse(abc, SIZE_MAX, digest.data(), 20), -1);
  EXPECT_EQ(digest, Sha1Digest{});
  EXPECT_EQ(TQSHA1Parse(nullptr, 0, digest.data(), 64), 20);
  EXPECT_EQ(hex(digest), hex(openssl_digest(EVP_sha1(), {})));
}

TEST(Sm3, LengthsBelowOneAddNothing) {
  const uint8_t byte = 'x';
  for (const int32_t length : {0, -1, INT32_MIN}) {
    Sm3Digest digest;
    TQ_sm3(length == 0 ? nullptr : &byte, length, digest.data());
    EXPECT_EQ(hex(digest), hex(openssl_digest(EVP_sm3(), {})));
    TQ_sm3_hmac(&byte, length, &byte, length, digest.data());
    EXPECT_EQ(hex(digest), hex(openssl_hmac(EVP_sm3(), {}, {})));
  }
}

// The state of a message that was never fed; its last block is written out by hand and absorbed as data.
TEST(Sm3, LengthOfAMessageOfGigabytes) {
  const Bytes last_block = Bytes{0x80} + Bytes(55) + from_hex("91a2b3c4d5e6f600");  // bits
  TQ_SM3_CTX fed;
  TQ_sm3_starts(&fed);
  TQ_sm3_update(&fed, last_block.data(), 64);
  TQ_SM3_CTX claimed;
  TQ_sm3_starts(&claimed);
  claimed.total[0] = 0x9ABCDEC0;
  claimed.total[1] = 0x12345678;
  Sm3Digest digest;
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

TEST(Sm3, HashesAFile) {
  const std::string path = testing::TempDir() + "sm3_test_file";
  Sm3Digest digest{};
  for (const size_t n : {1, 1024, 1025, 5000}) {
    const Bytes data(n, 0x6A);
    FILE* file = std::fopen(path.c_str(), "wb");
    ASSERT_NE(file, nullptr);
    ASSERT_EQ(std::fwrite(data.data(), 1, n, file), n);
    ASSERT_EQ(std::fclose(file), 0);
    EXPECT_EQ(scp_sm3_file(path.c_str(), digest.data()), 0);
    EXPECT_EQ(hex(digest), hex(openssl_digest(EVP_sm3(), data))) << n;
  }
  ASSERT_EQ(std::remove(path.c_str()), 0);
  digest = {};
  // Not there; a folder, which opens but cannot be read; none.
  for (const char* bad : {path.c_str(), "/", static_cast<const char*>(nullptr)})
    EXPECT_EQ(scp_sm3_file(bad, digest.data()), 1);
  EXPECT_EQ(digest, Sm3Digest{});
}

}  // namespace
