// AES, DES and SM4 beside the published examples and OpenSSL.
#include <gtest/gtest.h>
#define OPENSSL_SUPPRESS_DEPRECATED  // the parity and weak-key checks have no newer form
#include <openssl/des.h>

#include <functional>
#include <numeric>

#include "crypto/aes.hpp"
#include "crypto/aes128.hpp"
#include "crypto/des.h"
#include "crypto/sm4.h"
#include "support/bytes.hpp"
#include "support/openssl_peer.hpp"

namespace {

using namespace test;

// What came of `in`, which is worked on in place: ECB when `iv` is null, else CBC, which moves `iv` on.
using Crypt = std::function<void(bool encrypt, const Bytes& key, uint8_t* iv, std::span<uint8_t> data)>;

struct Cipher {
  const char* name;
  size_t key_len;
  size_t block_len;
  const EVP_CIPHER* ecb;  // null: it has CBC only
  const EVP_CIPHER* cbc;
  Crypt crypt;
};

template <class Key, auto kEncrypt, auto kDecrypt>
Crypt aes() {
  return [](bool encrypt, const Bytes& key, uint8_t* iv, std::span<uint8_t> data) {
    const Key aes([&key] {
      if constexpr (std::is_same_v<Key, tq::Aes>)
        return std::span<const uint8_t>(key);
      else
        return std::span<const uint8_t, 16>(key);
    }());
    (encrypt ? kEncrypt : kDecrypt)(aes, std::span<uint8_t, 16>(iv, 16), data, data);
  };
}
const auto kAes = aes<tq::Aes, tq::aes_cbc_encrypt, tq::aes_cbc_decrypt>();
const auto kAesOfTables = aes<tq::Aes128, tq::aes128_cbc_encrypt, tq::aes128_cbc_decrypt>();

// Any mode but 1 decrypts.
template <typename Context, auto kSetEncrypt, auto kSetDecrypt, auto kEcb, auto kCbc>
Crypt des() {
  return [](bool encrypt, const Bytes& key, uint8_t* iv, std::span<uint8_t> data) {
    Context ctx;
    EXPECT_EQ((encrypt ? kSetEncrypt : kSetDecrypt)(&ctx, key.data()), 0);
    const int32_t mode = encrypt ? 1 : data.size() % 16 == 0 ? 0 : 2;
    const auto length = static_cast<int32_t>(data.size());
    for (size_t at = 0; iv == nullptr && at < data.size(); at += 8)
      EXPECT_EQ(kEcb(&ctx, &data[at], &data[at]), 0);
    const int32_t rc = iv == nullptr ? 0 : kCbc(&ctx, mode, length, iv, data.data(), data.data());
    EXPECT_EQ(rc, 0);
  };
}

template <auto kSetEncrypt, auto kSetDecrypt, auto kEcb, auto kCbc>
Crypt sm4() {
  return [](bool encrypt, const Bytes& key, uint8_t* iv, std::span<uint8_t> data) {
    TQ_SM4_CTX ctx;
    (encrypt ? kSetEncrypt : kSetDecrypt)(&ctx, key.data());
    const int32_t mode = encrypt ? 1 : data.size() % 32 == 0 ? 0 : 2;
    const auto length = static_cast<int32_t>(data.size());
    if (iv == nullptr) kEcb(&ctx, mode, length, data.data(), data.data());  // which ignores the mode
    if (iv != nullptr) kCbc(&ctx, mode, length, iv, data.data(), data.data());
  };
}

const Cipher kCiphers[] = {
    {"AES-128", 16, 16, nullptr, EVP_aes_128_cbc(), kAes},
    {"AES-192", 24, 16, nullptr, EVP_aes_192_cbc(), kAes},
    {"AES-256", 32, 16, nullptr, EVP_aes_256_cbc(), kAes},
    {"AES-128 of tables", 16, 16, nullptr, EVP_aes_128_cbc(), kAesOfTables},
    {"DES", 8, 8, EVP_des_ecb(), EVP_des_cbc(),
     des<TQ_DES_CTX, tq_des_setkey_enc, tq_des_setkey_dec, tq_des_crypt_ecb, tq_des_crypt_cbc>()},
    {"two-key 3DES", 16, 8, EVP_des_ede_ecb(), EVP_des_ede_cbc(),
     des<TQ_DES3_CTX, tq_des3_set2key_enc, tq_des3_set2key_dec, tq_des3_crypt_ecb, tq_des3_crypt_cbc>()},
    {"three-key 3DES", 24, 8, EVP_des_ede3_ecb(), EVP_des_ede3_cbc(),
     des<TQ_DES3_CTX, tq_des3_set3key_enc, tq_des3_set3key_dec, tq_des3_crypt_ecb, tq_des3_crypt_cbc>()},
    {"SM4", 16, 16, EVP_sm4_ecb(), EVP_sm4_cbc(),
     sm4<TQ_sm4_setkey_enc, TQ_sm4_setkey_dec, TQ_sm4_crypt_ecb, TQ_sm4_crypt_cbc>()},
    {"SM4 of the location service", 16, 16, EVP_sm4_ecb(), EVP_sm4_cbc(),
     sm4<scp_sm4_setkey_enc, scp_sm4_setkey_dec, scp_sm4_crypt_ecb, scp_sm4_crypt_cbc>()},
};

TEST(BlockCiphers, PublishedExamples) {
  const char* const zeros = "00000000000000000000000000000000";
  const struct {
    std::string_view cipher;
    const char* key;
    const char* iv;  // empty: ECB
    const char* plain;
    const char* encrypted;
  } examples[] = {
      // FIPS 197 appendices B and C
      {"AES-128", "2b7e151628aed2a6abf7158809cf4f3c", zeros, "3243f6a8885a308d313198a2e0370734",
       "3925841d02dc09fbdc118597196a0b32"},
      {"AES-128 of tables", "000102030405060708090a0b0c0d0e0f", zeros, "00112233445566778899aabbccddeeff",
       "69c4e0d86a7b0430d8cdb78070b4c55a"},
      {"AES-192", "000102030405060708090a0b0c0d0e0f1011121314151617", zeros,
       "00112233445566778899aabbccddeeff", "dda97ca4864cdfe06eaf70a0ec0d7191"},
      {"AES-256", "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f", zeros,
       "00112233445566778899aabbccddeeff", "8ea2b7ca516745bfeafc49904b496089"},
      // FIPS 81 tables B1 and C1
      {"DES", "0123456789abcdef", "", "4e6f772069732074", "3fa40e8a984d4815"},
      {"DES", "0123456789abcdef", "1234567890abcdef", "4e6f77206973207468652074696d6520666f7220616c6c20",
       "e5c7cdde872bf27c43e934008c389c0f683788499a7c05f6"},
      // NIST SP 800-67 appendix B.1
      {"three-key 3DES", "0123456789abcdef23456789abcdef01456789abcdef0123", "", "5468652071756663",
       "a826fd8ce53b855f"},
      // ICAO 9303-11 appendix D.3
      {"two-key 3DES", "ab94fdecf2674fdfb9b391f85d7f76f2", "0000000000000000",
       "781723860c06c2264608f919887022120b795240cb7049b01c19b33e32804f0b",
       "72c29c2371cc9bdb65b779b8e8d37b29ecc154aa56a8799fae2f498f76ed92f2"},
      // GB/T 32907 appendix A
      {"SM4", "0123456789abcdeffedcba9876543210", "", "0123456789abcdeffedcba9876543210",
       "681edf34d206965e86b3e94f536e4246"},
  };
  for (const auto& e : examples) {
    const auto* const cipher = std::find_if(std::begin(kCiphers), std::end(kCiphers),
                                            [&e](const Cipher& c) { return c.name == e.cipher; });
    Bytes data = from_hex(e.plain);
    for (const bool encrypt : {true, false}) {
      Bytes iv = from_hex(e.iv);
      cipher->crypt(encrypt, from_hex(e.key), iv.empty() ? nullptr : iv.data(), data);
      EXPECT_EQ(hex(data), encrypt ? e.encrypted : e.plain) << e.cipher;
    }
  }
}

// ECB at once, CBC in chained calls; key, vector and data have just the room they need.
TEST(BlockCiphers, AgreeWithOpenSslHoweverTheyAreFed) {
  std::mt19937 generator(12);
  for (const Cipher& cipher : kCiphers) {
    for (size_t num_blocks = 0; num_blocks <= 40; ++num_blocks) {
      const Bytes key = random_bytes(generator, cipher.key_len);
      const Bytes iv = random_bytes(generator, cipher.block_len);
      const Bytes plain = random_bytes(generator, cipher.block_len * num_blocks);
      const Bytes encrypted = openssl_cipher(cipher.cbc, true, key, iv, plain);
      for (const bool encrypt : {true, false}) {
        Bytes data = encrypt ? plain : encrypted;
        Bytes chain = iv;
        size_t at = 0;
        do {
          const size_t piece = std::min(cipher.block_len * (generator() % 20), data.size() - at);
          cipher.crypt(encrypt, key, chain.data(), std::span(data).subspan(at, piece));
          at += piece;
        } while (at < data.size());
        ASSERT_EQ(data, encrypt ? encrypted : plain) << cipher.name << " " << num_blocks;
        ASSERT_EQ(chain, slice(iv + encrypted, encrypted.size(), encrypted.size() + iv.size()))
            << cipher.name;
        if (cipher.ecb == nullptr) continue;
        data = plain;
        cipher.crypt(encrypt, key, nullptr, data);
        ASSERT_EQ(data, openssl_cipher(cipher.ecb, encrypt, key, {}, plain)) << cipher.name;
      }
    }
  }
}

// What goes beyond the last whole block: AES leaves it alone, SM4 takes a whole block, DES refuses.
TEST(BlockCiphers, LengthsThatAreNoWholeBlocks) {
  const Bytes key(32, 0x31);
  for (const Crypt& crypt : {kAes, kAesOfTables}) {
    Bytes iv(16, 0xDD);
    Bytes data(15, 0xEE);
    crypt(true, exact_copy(key, 16), iv.data(), data);
    EXPECT_EQ(data + iv, Bytes(15, 0xEE) + Bytes(16, 0xDD));
  }

  TQ_SM4_CTX sm4;
  TQ_sm4_setkey_enc(&sm4, key.data());
  for (int32_t length = -17; length <= 66; ++length) {
    const auto whole = static_cast<size_t>(length < 1 ? 0 : (length + 15) / 16 * 16);
    Bytes data(whole);
    Bytes iv(16);
    TQ_sm4_crypt_ecb(&sm4, 1, length, data.data(), data.data());
    EXPECT_EQ(data, openssl_cipher(EVP_sm4_ecb(), true, exact_copy(key, 16), {}, Bytes(whole))) << length;
    data = Bytes(whole);
    TQ_sm4_crypt_cbc(&sm4, 1, length, iv.data(), data.data(), data.data());
    EXPECT_EQ(data, openssl_cipher(EVP_sm4_cbc(), true, exact_copy(key, 16), Bytes(16), Bytes(whole)));
  }

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

// One object for all messages: it is as new after each.
TEST(Cmac, AgreesWithOpenSslHoweverItIsFed) {
  std::mt19937 generator(38);
  for (const size_t key_len : {16, 24, 32}) {
    const Bytes key = random_bytes(generator, key_len);
    const tq::Aes aes(key);
    tq::Cmac cmac(aes);
    for (size_t length = 0; length <= 100; ++length) {
      const Bytes data = random_bytes(generator, length);
      for (size_t at = 0; at < length;) {
        const size_t piece = std::min<size_t>(generator() % 40, length - at);
        cmac.update(slice(data, at, at + piece));
        at += piece;
      }
      Bytes mac(16);
      cmac.finish(std::span<uint8_t, 16>(mac));
      ASSERT_EQ(hex(mac), hex(openssl_cmac(key, data))) << key_len << " " << length;
    }
  }
}

}  // namespace
