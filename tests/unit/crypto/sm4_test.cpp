#include "crypto/sm4.h"

#include <gtest/gtest.h>

#include <random>

#include "support/bytes.hpp"
#include "support/openssl_peer.hpp"

namespace {

using test::Bytes;

struct Sm4Set {
  const char* name;
  decltype(&TQ_sm4_setkey_enc) set_encrypt;
  decltype(&TQ_sm4_setkey_dec) set_decrypt;
  decltype(&TQ_sm4_crypt_ecb) ecb;
  decltype(&TQ_sm4_crypt_cbc) cbc;
};
const Sm4Set kSets[] = {
    {"TQ", TQ_sm4_setkey_enc, TQ_sm4_setkey_dec, TQ_sm4_crypt_ecb, TQ_sm4_crypt_cbc},
    {"scp", scp_sm4_setkey_enc, scp_sm4_setkey_dec, scp_sm4_crypt_ecb, scp_sm4_crypt_cbc},
};

int32_t len_of(const Bytes& bytes) {
  return static_cast<int32_t>(bytes.size());
}

// GB/T 32907 appendix A.
TEST(Sm4, PublishedExamples) {
  const Bytes key = test::from_hex("0123456789abcdeffedcba9876543210");
  TQ_SM4_CTX ctx;
  TQ_sm4_setkey_enc(&ctx, key.data());
  EXPECT_EQ(ctx.rk[0], 0xF12186F9U);
  EXPECT_EQ(ctx.rk[31], 0x9124A012U);
  Bytes block = key;
  TQ_sm4_crypt_ecb(&ctx, 1, 16, block.data(), block.data());
  EXPECT_EQ(test::hex(block), "681edf34d206965e86b3e94f536e4246");
  for (int i = 1; i < 1000000; ++i) TQ_sm4_crypt_ecb(&ctx, 1, 16, block.data(), block.data());
  EXPECT_EQ(test::hex(block), "595298c7c6fd271f0402f804c33d3f66");
}

TEST(Sm4, AgreesWithOpenSslForEveryNumberOfBlocks) {
  std::mt19937 generator(8);
  for (const auto& set : kSets) {
    for (size_t num_blocks = 1; num_blocks <= 20; ++num_blocks) {
      const Bytes key = test::random_bytes(generator, 16);
      const Bytes iv = test::random_bytes(generator, 16);
      const Bytes plain = test::random_bytes(generator, 16 * num_blocks);
      const Bytes ecb = test::openssl_cipher(EVP_sm4_ecb(), true, key, {}, plain);
      const Bytes cbc = test::openssl_cipher(EVP_sm4_cbc(), true, key, iv, plain);
      TQ_SM4_CTX encrypt;
      TQ_SM4_CTX decrypt;
      set.set_encrypt(&encrypt, key.data());
      set.set_decrypt(&decrypt, key.data());
      Bytes out(plain.size());
      set.ecb(&encrypt, 0, len_of(plain), plain.data(), out.data());  // the mode word is ignored
      ASSERT_EQ(out, ecb) << set.name;
      set.ecb(&decrypt, 1, len_of(ecb), ecb.data(), out.data());
      ASSERT_EQ(out, plain) << set.name;
      Bytes chain = iv;
      set.cbc(&encrypt, 1, len_of(plain), chain.data(), plain.data(), out.data());
      ASSERT_EQ(out, cbc) << set.name;
      ASSERT_EQ(chain, Bytes(cbc.end() - 16, cbc.end())) << set.name;
      chain = iv;
      set.cbc(&decrypt, 2, len_of(cbc), chain.data(), cbc.data(), out.data());  // any mode but 1 decrypts
      ASSERT_EQ(out, plain) << set.name;
      ASSERT_EQ(chain, Bytes(cbc.end() - 16, cbc.end())) << set.name;
    }
  }
}

TEST(Sm4, InPlaceAndInChainedCalls) {
  std::mt19937 generator(9);
  const Bytes key = test::random_bytes(generator, 16);
  const Bytes iv = test::random_bytes(generator, 16);
  const Bytes plain = test::random_bytes(generator, size_t{16} * 23);
  const Bytes cbc = test::openssl_cipher(EVP_sm4_cbc(), true, key, iv, plain);
  TQ_SM4_CTX encrypt;
  TQ_SM4_CTX decrypt;
  TQ_sm4_setkey_enc(&encrypt, key.data());
  TQ_sm4_setkey_dec(&decrypt, key.data());
  for (int round = 0; round < 50; ++round) {
    Bytes encrypted = plain;
    Bytes decrypted = cbc;
    Bytes encrypt_chain = iv;
    Bytes decrypt_chain = iv;
    for (size_t at = 0; at < plain.size();) {
      const size_t len = std::min(16 * (generator() % 9), plain.size() - at);
      TQ_sm4_crypt_cbc(&encrypt, 1, static_cast<int32_t>(len), encrypt_chain.data(), &encrypted[at],
                       &encrypted[at]);
      TQ_sm4_crypt_cbc(&decrypt, 0, static_cast<int32_t>(len), decrypt_chain.data(), &decrypted[at],
                       &decrypted[at]);
      at += len;
    }
    ASSERT_EQ(encrypted, cbc);
    ASSERT_EQ(decrypted, plain);
  }
}

TEST(Sm4, PartialBlocksCountAsWholeOnes) {
  std::mt19937 generator(10);
  const Bytes key = test::random_bytes(generator, 16);
  const Bytes iv = test::random_bytes(generator, 16);
  TQ_SM4_CTX ctx;
  TQ_sm4_setkey_enc(&ctx, key.data());
  for (int32_t length = -17; length <= 100; ++length) {
    const auto whole = static_cast<size_t>(length < 1 ? 0 : (length + 15) / 16 * 16);
    const Bytes plain = test::random_bytes(generator, whole);
    Bytes ecb(whole);
    TQ_sm4_crypt_ecb(&ctx, 1, length, plain.data(), ecb.data());
    EXPECT_EQ(ecb, test::openssl_cipher(EVP_sm4_ecb(), true, key, {}, plain)) << length;
    Bytes cbc(whole);
    Bytes chain = iv;
    TQ_sm4_crypt_cbc(&ctx, 1, length, chain.data(), plain.data(), cbc.data());
    EXPECT_EQ(cbc, test::openssl_cipher(EVP_sm4_cbc(), true, key, iv, plain)) << length;
    EXPECT_EQ(chain, whole == 0 ? iv : Bytes(cbc.end() - 16, cbc.end())) << length;
  }
}

}  // namespace
