#include "crypto/sm4.h"

#include <gtest/gtest.h>

#include <random>

#include "support/bytes.hpp"
#include "support/openssl_peer.hpp"

namespace {

using test::Bytes;

struct Sm4Set {
  decltype(&TQ_sm4_setkey_enc) set_encrypt;
  decltype(&TQ_sm4_setkey_dec) set_decrypt;
  decltype(&TQ_sm4_crypt_ecb) ecb;
  decltype(&TQ_sm4_crypt_cbc) cbc;
};

class Sm4 : public testing::TestWithParam<Sm4Set> {};
INSTANTIATE_TEST_SUITE_P(
    BothNames, Sm4,
    testing::Values(Sm4Set{TQ_sm4_setkey_enc, TQ_sm4_setkey_dec, TQ_sm4_crypt_ecb, TQ_sm4_crypt_cbc},
                    Sm4Set{scp_sm4_setkey_enc, scp_sm4_setkey_dec, scp_sm4_crypt_ecb, scp_sm4_crypt_cbc}));

// GB/T 32907 appendix A.
TEST_P(Sm4, PublishedExamples) {
  const Bytes key = test::from_hex("0123456789abcdeffedcba9876543210");
  TQ_SM4_CTX ctx;
  GetParam().set_encrypt(&ctx, key.data());
  EXPECT_EQ(ctx.rk[0], 0xF12186F9U);
  EXPECT_EQ(ctx.rk[31], 0x9124A012U);
  Bytes block = key;
  GetParam().ecb(&ctx, 1, 16, block.data(), block.data());
  EXPECT_EQ(test::hex(block), "681edf34d206965e86b3e94f536e4246");
  for (int i = 1; i < 1000000; ++i) GetParam().ecb(&ctx, 1, 16, block.data(), block.data());
  EXPECT_EQ(test::hex(block), "595298c7c6fd271f0402f804c33d3f66");
}

// Every length, where a begun block counts as a whole one; into another buffer at once, and in place in
// chained calls.
TEST_P(Sm4, AgreesWithOpenSsl) {
  std::mt19937 generator(8);
  for (int32_t length = -17; length <= 300; ++length) {
    const auto whole = static_cast<size_t>(length < 1 ? 0 : (length + 15) / 16 * 16);
    const Bytes key = test::random_bytes(generator, 16);
    const Bytes iv = test::random_bytes(generator, 16);
    const Bytes plain = test::random_bytes(generator, whole);
    const Bytes ecb = test::openssl_cipher(EVP_sm4_ecb(), true, key, {}, plain);
    const Bytes cbc = test::openssl_cipher(EVP_sm4_cbc(), true, key, iv, plain);
    const Bytes last = whole == 0 ? iv : Bytes(cbc.end() - 16, cbc.end());
    TQ_SM4_CTX encrypt;
    TQ_SM4_CTX decrypt;
    GetParam().set_encrypt(&encrypt, key.data());
    GetParam().set_decrypt(&decrypt, key.data());

    Bytes out(whole);
    GetParam().ecb(&encrypt, 0, length, plain.data(), out.data());  // the mode is ignored
    ASSERT_EQ(out, ecb) << length;
    GetParam().ecb(&decrypt, 1, length, out.data(), out.data());
    ASSERT_EQ(out, plain) << length;
    Bytes chain = iv;
    GetParam().cbc(&encrypt, 1, length, chain.data(), plain.data(), out.data());
    ASSERT_EQ(out, cbc) << length;
    ASSERT_EQ(chain, last) << length;
    chain = iv;
    GetParam().cbc(&decrypt, 2, length, chain.data(), cbc.data(), out.data());  // any mode but 1 decrypts
    ASSERT_EQ(out, plain) << length;
    ASSERT_EQ(chain, last) << length;

    for (const bool encrypting : {true, false}) {
      out = encrypting ? plain : cbc;
      chain = iv;
      for (size_t at = 0; at < whole;) {
        const size_t len = std::min(16 * (generator() % 9), whole - at);
        GetParam().cbc(encrypting ? &encrypt : &decrypt, encrypting ? 1 : 0, static_cast<int32_t>(len),
                       chain.data(), &out[at], &out[at]);
        at += len;
      }
      ASSERT_EQ(out, encrypting ? cbc : plain) << length;
      ASSERT_EQ(chain, last) << length;
    }
  }
}

}  // namespace
