#include "crypto/aes128.hpp"

#include <gtest/gtest.h>

#include <random>

#include "support/bytes.hpp"
#include "support/openssl_peer.hpp"

namespace {

using test::Bytes;
using Key = std::span<const uint8_t, 16>;
using Iv = std::span<uint8_t, 16>;

struct Example {
  const char* source;
  const char* key;
  const char* iv;
  const char* plain;
  const char* cipher;
};

const Example kExamples[] = {
    {"FIPS 197 appendix B", "2b7e151628aed2a6abf7158809cf4f3c", "00000000000000000000000000000000",
     "3243f6a8885a308d313198a2e0370734", "3925841d02dc09fbdc118597196a0b32"},
    {"FIPS 197 appendix C.1", "000102030405060708090a0b0c0d0e0f", "00000000000000000000000000000000",
     "00112233445566778899aabbccddeeff", "69c4e0d86a7b0430d8cdb78070b4c55a"},
    {"SP 800-38A F.2.1", "2b7e151628aed2a6abf7158809cf4f3c", "000102030405060708090a0b0c0d0e0f",
     "6bc1bee22e409f96e93d7e117393172a ae2d8a571e03ac9c9eb76fac45af8e51"
     "30c81c46a35ce411e5fbc1191a0a52ef f69f2445df4f9b17ad2b417be66c3710",
     "7649abac8119b246cee98e9b12e9197d 5086cb9b507219ee95db113a917678b2"
     "73bed6b8e3c1743b7116e69e22229516 3ff1caa1681fac09120eca307586e1a7"},
};

TEST(Aes128, PublishedExamples) {
  for (const Example& example : kExamples) {
    const Bytes key = test::from_hex(example.key);
    const Bytes cipher = test::from_hex(example.cipher);
    const tq::Aes128 aes(Key{key.data(), 16});
    Bytes text = test::from_hex(example.plain);
    Bytes iv = test::from_hex(example.iv);
    tq::aes128_cbc_encrypt(aes, Iv{iv.data(), 16}, text, text);
    EXPECT_EQ(text, cipher) << example.source;
    iv = test::from_hex(example.iv);
    tq::aes128_cbc_decrypt(aes, Iv{iv.data(), 16}, text, text);
    EXPECT_EQ(text, test::from_hex(example.plain)) << example.source;
  }
  const Bytes key = test::from_hex("2b7e151628aed2a6abf7158809cf4f3c");  // FIPS 197 appendix A.1
  const tq::Aes128 aes(Key{key.data(), 16});
  EXPECT_EQ(aes.encryption()[4], 0xA0FAFE17U);
  EXPECT_EQ(aes.encryption()[43], 0xB6630CA6U);
}

// Every length, where bytes beyond the last whole block are left alone; into another buffer at once, and in
// place in chained calls.
TEST(Aes128, AgreesWithOpenSsl) {
  std::mt19937 generator(197);
  for (size_t length = 0; length <= 300; ++length) {
    const size_t whole = length / 16 * 16;
    const Bytes key = test::random_bytes(generator, 16);
    const Bytes iv = test::random_bytes(generator, 16);
    const Bytes plain = test::random_bytes(generator, length);
    const Bytes cipher =
        test::openssl_cipher(EVP_aes_128_cbc(), true, key, iv, test::exact_copy(plain, whole));
    const Bytes last = whole == 0 ? iv : Bytes(cipher.end() - 16, cipher.end());
    const tq::Aes128 aes(Key{key.data(), 16});
    for (const bool encrypting : {true, false}) {
      const auto crypt = encrypting ? tq::aes128_cbc_encrypt : tq::aes128_cbc_decrypt;
      Bytes in = encrypting ? plain : cipher;
      in.resize(length, 0xA5);
      Bytes expected = encrypting ? cipher : plain;
      expected.resize(length);

      Bytes out(length);
      Bytes chain = iv;
      crypt(aes, Iv{chain.data(), 16}, in, out);
      ASSERT_EQ(test::exact_copy(out, whole), test::exact_copy(expected, whole)) << length;
      ASSERT_EQ(Bytes(out.begin() + static_cast<ptrdiff_t>(whole), out.end()), Bytes(length - whole));
      ASSERT_EQ(chain, last) << length;

      chain = iv;
      for (size_t at = 0; at < whole;) {
        const std::span<uint8_t> piece =
            std::span(in).subspan(at, std::min(16 * (generator() % 9), whole - at));
        crypt(aes, Iv{chain.data(), 16}, piece, piece);
        at += piece.size();
      }
      ASSERT_EQ(test::exact_copy(in, whole), test::exact_copy(expected, whole)) << length;
      ASSERT_EQ(chain, last) << length;
    }
  }
}

}  // namespace
