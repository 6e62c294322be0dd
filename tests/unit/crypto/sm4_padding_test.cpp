#include "crypto/sm4_padding.h"

#include <gtest/gtest.h>

#include <limits>
#include <random>

#include "support/bytes.hpp"
#include "support/openssl_peer.hpp"

namespace {

using test::Bytes;

constexpr int32_t kCbc = 0;
constexpr int32_t kOther = 1;

Bytes folded_iv(const Bytes& key) {
  const Bytes digest = test::openssl_digest(EVP_sm3(), key);
  Bytes iv(16);
  for (size_t i = 0; i < 16; ++i) iv[i] = digest[i] ^ digest[i + 16];
  return iv;
}

Bytes padded(Bytes data) {
  const size_t padding = 16 - data.size() % 16;
  data.resize(data.size() + padding, static_cast<uint8_t>(padding));
  return data;
}

// Both wrappers with the key material that makes them agree: the decode server's block has the location's
// vector.
struct Wrappers {
  const char* name;
  decltype(&TQ_sm4Encrypt) encrypt;
  decltype(&TQ_sm4Decrypt) decrypt;
};
const Wrappers kWrappers[] = {{"TQ", TQ_sm4Encrypt, TQ_sm4Decrypt}, {"scp", scp_sm4Encrypt, scp_sm4Decrypt}};

class Sm4Padding : public testing::Test {
 protected:
  Sm4Padding() : key(test::random_bytes(generator, 16)), key_block(key) {
    key_block.resize(32);
    TQ_sm4InitIv(key.data(), key_block.data() + 16);
  }

  std::mt19937 generator{11};
  Bytes key;
  Bytes key_block;
};

TEST_F(Sm4Padding, VectorIsTheFoldedDigest) {
  EXPECT_EQ(Bytes(key_block.begin() + 16, key_block.end()), folded_iv(key));
}

TEST_F(Sm4Padding, EveryLengthBothWays) {
  for (const auto& wrappers : kWrappers) {
    for (size_t n = 0; n <= 300; ++n) {
      const Bytes plain = test::random_bytes(generator, n);
      const Bytes all = padded(plain);
      const Bytes expected = test::openssl_cipher(EVP_sm4_cbc(), true, key, folded_iv(key), all);
      Bytes data = plain;
      data.resize(all.size());
      Bytes out(all.size());
      ASSERT_EQ(wrappers.encrypt(data.data(), static_cast<int32_t>(n), key_block.data(), kCbc, out.data()),
                static_cast<int32_t>(all.size()));
      ASSERT_EQ(out, expected) << wrappers.name << " " << n;
      ASSERT_EQ(data, all) << "the padding goes behind the data";
      ASSERT_EQ(wrappers.encrypt(data.data(), static_cast<int32_t>(n), key_block.data(), kCbc, data.data()),
                static_cast<int32_t>(all.size()));
      ASSERT_EQ(data, expected) << wrappers.name << " in place " << n;

      Bytes zero_padded = plain;
      zero_padded.resize(all.size());
      for (Bytes* target : {&out, &data}) {
        ASSERT_EQ(wrappers.decrypt(data.data(), static_cast<int32_t>(data.size()), key_block.data(), kCbc,
                                   target->data()),
                  static_cast<int32_t>(n));
        ASSERT_EQ(*target, zero_padded) << wrappers.name << " " << n;
      }
    }
  }
}

TEST_F(Sm4Padding, OtherModesAreEcbForTheLocationServer) {
  const Bytes plain = test::random_bytes(generator, 50);
  Bytes data = plain;
  data.resize(64);
  Bytes out(64);
  EXPECT_EQ(scp_sm4Encrypt(data.data(), 50, key.data(), kOther, out.data()), 64);
  EXPECT_EQ(out, test::openssl_cipher(EVP_sm4_ecb(), true, key, {}, padded(plain)));
  EXPECT_EQ(scp_sm4Decrypt(out.data(), 64, key.data(), kOther, out.data()), 50);
  Bytes zero_padded = plain;
  zero_padded.resize(64);
  EXPECT_EQ(out, zero_padded);
}

TEST_F(Sm4Padding, OtherModesLeaveOutTheCipherForTheDecodeServer) {
  Bytes data = test::random_bytes(generator, 32);
  data[31] = 3;
  Bytes out(32, 0xEE);
  EXPECT_EQ(TQ_sm4Encrypt(data.data(), 20, key_block.data(), kOther, out.data()), 32);
  EXPECT_EQ(out, Bytes(32, 0xEE));
  EXPECT_EQ(Bytes(data.begin() + 20, data.end()), Bytes(12, 12));
  out[31] = 5;
  EXPECT_EQ(TQ_sm4Decrypt(data.data(), 32, key_block.data(), kOther, out.data()), 27);
  Bytes expected(32, 0xEE);
  std::fill(expected.begin() + 27, expected.end(), uint8_t{0});
  EXPECT_EQ(out, expected);
  out[31] = 33;
  EXPECT_EQ(TQ_sm4Decrypt(data.data(), 32, key_block.data(), kOther, out.data()), -1);
}

TEST_F(Sm4Padding, LastByteIsBelievedAsFarAsItFits) {
  struct Case {
    size_t length;
    uint8_t last;
    int32_t result;
  };
  const Case cases[] = {{16, 0, 16}, {16, 16, 0},  {16, 17, -1},  {32, 17, 15},
                        {32, 32, 0}, {32, 33, -1}, {256, 255, 1}, {240, 255, -1}};
  for (const auto& wrappers : kWrappers) {
    for (const auto& c : cases) {
      Bytes plain = test::random_bytes(generator, c.length);
      plain.back() = c.last;
      const Bytes cipher = test::openssl_cipher(EVP_sm4_cbc(), true, key, folded_iv(key), plain);
      Bytes out(c.length);
      EXPECT_EQ(
          wrappers.decrypt(cipher.data(), static_cast<int32_t>(c.length), key_block.data(), kCbc, out.data()),
          c.result)
          << wrappers.name << " " << c.length << " " << int{c.last};
      if (c.result >= 0) std::fill(plain.begin() + c.result, plain.end(), uint8_t{0});
      EXPECT_EQ(out, plain) << wrappers.name;
    }
  }
}

TEST_F(Sm4Padding, BadArgumentsAreRefusedUntouched) {
  Bytes data(48, 0xDD);
  Bytes out(48, 0xEE);
  constexpr int32_t most = std::numeric_limits<int32_t>::max();
  constexpr int32_t least = std::numeric_limits<int32_t>::min();
  for (const auto& wrappers : kWrappers) {
    for (const int32_t length : {-1, -16, least, most, most - 15}) {
      EXPECT_EQ(wrappers.encrypt(data.data(), length, key_block.data(), kCbc, out.data()), -1) << length;
    }
    for (const int32_t length : {0, 1, 15, 17, 47, -16, least, most}) {
      EXPECT_EQ(wrappers.decrypt(data.data(), length, key_block.data(), kCbc, out.data()), -1) << length;
    }
    EXPECT_EQ(wrappers.encrypt(nullptr, 16, key_block.data(), kCbc, out.data()), -1);
    EXPECT_EQ(wrappers.encrypt(data.data(), 16, nullptr, kCbc, out.data()), -1);
    EXPECT_EQ(wrappers.encrypt(data.data(), 16, key_block.data(), kCbc, nullptr), -1);
    EXPECT_EQ(wrappers.decrypt(nullptr, 16, key_block.data(), kCbc, out.data()), -1);
    EXPECT_EQ(wrappers.decrypt(data.data(), 16, nullptr, kCbc, out.data()), -1);
    EXPECT_EQ(wrappers.decrypt(data.data(), 16, key_block.data(), kCbc, nullptr), -1);
  }
  EXPECT_EQ(data, Bytes(48, 0xDD));
  EXPECT_EQ(out, Bytes(48, 0xEE));
}

}  // namespace
