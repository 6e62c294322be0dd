#include "crypto/sm4.h"

#include <gtest/gtest.h>

#include "support/bytes.hpp"
#include "support/openssl_peer.hpp"

namespace {

using namespace test;

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
  const Bytes key = from_hex("0123456789abcdeffedcba9876543210");
  TQ_SM4_CTX ctx;
  GetParam().set_encrypt(&ctx, key.data());
  EXPECT_EQ(ctx.rk[0], 0xF12186F9U);
  EXPECT_EQ(ctx.rk[31], 0x9124A012U);
  Bytes block = key;
  GetParam().ecb(&ctx, 1, 16, block.data(), block.data());
  EXPECT_EQ(hex(block), "681edf34d206965e86b3e94f536e4246");
  for (int i = 1; i < 1000000; ++i) GetParam().ecb(&ctx, 1, 16, block.data(), block.data());
  EXPECT_EQ(hex(block), "595298c7c6fd271f0402f804c33d3f66");
}

// Every length, where a begun block counts as a whole one; ECB at once, CBC in place in chained calls.
TEST_P(Sm4, AgreesWithOpenSsl) {
  std::mt19937 generator(8);
  for (int32_t length = -17; length <= 300; ++length) {
    const auto whole = static_cast<size_t>(length < 1 ? 0 : (length + 15) / 16 * 16);
    const Bytes key = random_bytes(generator, 16);
    const Bytes iv = random_bytes(generator, 16);
    const Bytes plain = random_bytes(generator, whole);
    const Bytes cbc = openssl_cipher(EVP_sm4_cbc(), true, key, iv, plain);
    TQ_SM4_CTX encrypt;
    TQ_SM4_CTX decrypt;
    GetParam().set_encrypt(&encrypt, key.data());
    GetParam().set_decrypt(&decrypt, key.data());

    Bytes out(whole);
    GetParam().ecb(&encrypt, 0, length, plain.data(), out.data());  // the mode is ignored
    ASSERT_EQ(out, openssl_cipher(EVP_sm4_ecb(), true, key, {}, plain)) << length;
    GetParam().ecb(&decrypt, 1, length, out.data(), out.data());
    ASSERT_EQ(out, plain) << length;

    for (const int32_t mode : {1, 0, 2}) {  // any mode but 1 decrypts
      const bool encrypting = mode == 1;
      out = encrypting ? plain : cbc;
      Bytes chain = iv;
      int32_t at = 0;
      do {
        const int32_t left = length - at;
        const int32_t piece = std::min(static_cast<int32_t>(16 * (generator() % 20)), left);
        GetParam().cbc(encrypting ? &encrypt : &decrypt, mode, piece, chain.data(), out.data() + at,
                       out.data() + at);
        at += piece;
      } while (at < length);
      ASSERT_EQ(out, encrypting ? cbc : plain) << length;
      ASSERT_EQ(chain, whole == 0 ? iv : slice(cbc, whole - 16, whole)) << length;
    }
  }
}

}  // namespace
