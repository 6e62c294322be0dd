#include "crypto/des.h"

#include <gtest/gtest.h>
#define OPENSSL_SUPPRESS_DEPRECATED  // the parity and weak-key checks have no newer form
#include <openssl/des.h>

#include <functional>
#include <numeric>

#include "support/bytes.hpp"
#include "support/openssl_peer.hpp"

namespace {

using namespace test;

struct Cipher {
  const char* name;
  size_t key_len;
  const EVP_CIPHER* ecb;
  const EVP_CIPHER* cbc;
  // One block when `iv` is null, else CBC. Returns the result of the crypt routine.
  std::function<int32_t(bool encrypt, const Bytes& key, uint8_t* iv, int32_t length, const uint8_t* in,
                        uint8_t* out)>
      run;
};

template <typename Context, typename SetKey, typename Ecb, typename Cbc>
auto runner(SetKey set_encrypt, SetKey set_decrypt, Ecb ecb, Cbc cbc) {
  return [=](bool encrypt, const Bytes& key, uint8_t* iv, int32_t length, const uint8_t* in, uint8_t* out) {
    Context ctx;
    EXPECT_EQ((encrypt ? set_encrypt : set_decrypt)(&ctx, key.data()), 0);
    const int32_t mode = encrypt ? 1 : length % 16 == 0 ? 0 : 2;  // any mode but 1 decrypts
    return iv == nullptr ? ecb(&ctx, in, out) : cbc(&ctx, mode, length, iv, in, out);
  };
}

const Cipher kCiphers[] = {
    {"DES", 8, EVP_des_ecb(), EVP_des_cbc(),
     runner<TQ_DES_CTX>(tq_des_setkey_enc, tq_des_setkey_dec, tq_des_crypt_ecb, tq_des_crypt_cbc)},
    {"two-key 3DES", 16, EVP_des_ede_ecb(), EVP_des_ede_cbc(),
     runner<TQ_DES3_CTX>(tq_des3_set2key_enc, tq_des3_set2key_dec, tq_des3_crypt_ecb, tq_des3_crypt_cbc)},
    {"three-key 3DES", 24, EVP_des_ede3_ecb(), EVP_des_ede3_cbc(),
     runner<TQ_DES3_CTX>(tq_des3_set3key_enc, tq_des3_set3key_dec, tq_des3_crypt_ecb, tq_des3_crypt_cbc)},
};

TEST(Des, PublishedExamples) {
  const struct {
    size_t cipher;
    const char* key;
    const char* iv;  // empty: ECB
    const char* plain;
    const char* encrypted;
  } examples[] = {
      // FIPS 81 tables B1 and C1
      {0, "0123456789abcdef", "", "4e6f772069732074", "3fa40e8a984d4815"},
      {0, "0123456789abcdef", "1234567890abcdef", "4e6f77206973207468652074696d6520666f7220616c6c20",
       "e5c7cdde872bf27c43e934008c389c0f683788499a7c05f6"},
      // NIST SP 800-67 appendix B.1
      {2, "0123456789abcdef23456789abcdef01456789abcdef0123", "", "5468652071756663", "a826fd8ce53b855f"},
      // ICAO 9303-11 appendix D.3
      {1, "ab94fdecf2674fdfb9b391f85d7f76f2", "0000000000000000",
       "781723860c06c2264608f919887022120b795240cb7049b01c19b33e32804f0b",
       "72c29c2371cc9bdb65b779b8e8d37b29ecc154aa56a8799fae2f498f76ed92f2"},
  };
  for (const auto& e : examples) {
    const Cipher& cipher = kCiphers[e.cipher];
    Bytes data = from_hex(e.plain);
    for (const bool encrypt : {true, false}) {
      Bytes iv = from_hex(e.iv);
      uint8_t* const vector = iv.empty() ? nullptr : iv.data();
      const auto length = static_cast<int32_t>(data.size());
      EXPECT_EQ(cipher.run(encrypt, from_hex(e.key), vector, length, data.data(), data.data()), 0);
      EXPECT_EQ(hex(data), encrypt ? e.encrypted : e.plain) << cipher.name;
    }
  }
}

// Chained calls in place.
TEST(Des, AgreesWithOpenSslForEveryNumberOfBlocks) {
  std::mt19937 generator(12);
  for (const auto& cipher : kCiphers) {
    for (size_t num_blocks = 1; num_blocks <= 40; ++num_blocks) {
      const Bytes key = random_bytes(generator, cipher.key_len);
      const Bytes iv = random_bytes(generator, 8);
      const Bytes plain = random_bytes(generator, 8 * num_blocks);
      const Bytes encrypted = openssl_cipher(cipher.cbc, true, key, iv, plain);
      for (const bool encrypt : {true, false}) {
        const Bytes& in = encrypt ? plain : encrypted;
        Bytes out = in;
        Bytes chain = iv;
        for (size_t at = 0; at < out.size();) {
          const size_t piece = std::min(8 * (generator() % 20), out.size() - at);
          const auto length = static_cast<int32_t>(piece);
          ASSERT_EQ(cipher.run(encrypt, key, chain.data(), length, &out[at], &out[at]), 0);
          at += piece;
        }
        ASSERT_EQ(out, encrypt ? encrypted : plain) << cipher.name << " " << num_blocks;
        ASSERT_EQ(chain, slice(encrypted, encrypted.size() - 8, encrypted.size())) << cipher.name;

        const Bytes block = exact_copy(in, 8);
        out.resize(8);
        ASSERT_EQ(cipher.run(encrypt, key, nullptr, 8, block.data(), out.data()), 0);
        ASSERT_EQ(out, openssl_cipher(cipher.ecb, encrypt, key, {}, block)) << cipher.name;
      }
    }
  }
}

TEST(Des, BadLengthsChangeNothing) {
  for (const auto& cipher : kCiphers) {
    const Bytes key(cipher.key_len, 0x31);
    Bytes data(32, 0xEE);
    Bytes iv(8, 0xDD);
    for (const int32_t length : {12, 1, 7, 9, -1, -8, INT32_MIN}) {
      for (const bool encrypt : {true, false})
        EXPECT_EQ(cipher.run(encrypt, key, iv.data(), length, data.data(), data.data()), -50) << length;
    }
    EXPECT_EQ(cipher.run(true, key, iv.data(), 0, nullptr, nullptr), 0);
    EXPECT_EQ(data + iv, Bytes(32, 0xEE) + Bytes(8, 0xDD));
  }
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
  for (size_t a = 0; a < 4; ++a) {
    for (size_t b = 0; b < 4; ++b) {
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
}

TEST(Des, ContextsAreZeroed) {
  const Bytes key(24, 0x57);
  for (const bool by_init : {true, false}) {
    TQ_DES_CTX one;
    TQ_DES3_CTX three;
    tq_des_setkey_enc(&one, key.data());
    tq_des3_set3key_enc(&three, key.data());
    by_init ? tq_des_init(&one) : tq_des_free(&one);
    by_init ? tq_des3_init(&three) : tq_des3_free(&three);
    EXPECT_EQ(std::accumulate(std::begin(one.sk), std::end(one.sk), 0U), 0U);
    EXPECT_EQ(std::accumulate(std::begin(three.sk), std::end(three.sk), 0U), 0U);
  }
  tq_des_free(nullptr);
  tq_des3_free(nullptr);
}

}  // namespace
