#include "crypto/sm4_padding.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "support/bytes.hpp"
#include "support/openssl_peer.hpp"

namespace {

using namespace test;

constexpr int32_t kCbc = 0;
constexpr int32_t kOther = 1;

const struct {
  decltype(&TQ_sm4Encrypt) encrypt;
  decltype(&TQ_sm4Decrypt) decrypt;
} kWrappers[] = {{TQ_sm4Encrypt, TQ_sm4Decrypt}, {scp_sm4Encrypt, scp_sm4Decrypt}};

Bytes filled(Bytes data, size_t size, uint8_t value) {
  data.resize(size, value);
  return data;
}

// The decode server's key block gets the location server's vector, so that both wrappers must agree.
class Sm4Padding : public testing::Test {
 protected:
  Sm4Padding() { TQ_sm4InitIv(key.data(), key_block.data() + 16); }

  std::mt19937 generator{11};
  const Bytes key = random_bytes(generator, 16);
  const Bytes iv = folded_vector(key);
  Bytes key_block = key + Bytes(16);
};

TEST_F(Sm4Padding, EveryLengthBothWays) {
  for (const auto& wrappers : kWrappers) {
    for (int32_t n = 0; n <= 300; ++n) {
      const int32_t padded_len = n / 16 * 16 + 16;
      const auto room = static_cast<size_t>(padded_len);
      const Bytes plain = random_bytes(generator, static_cast<size_t>(n));
      const Bytes padded = filled(plain, room, static_cast<uint8_t>(padded_len - n));
      const Bytes encrypted = openssl_cipher(EVP_sm4_cbc(), true, key, iv, padded);
      Bytes data = filled(plain, room, 0);
      Bytes out(room);
      ASSERT_EQ(wrappers.encrypt(data.data(), n, key_block.data(), kCbc, out.data()), padded_len);
      ASSERT_EQ(data, padded) << "the padding goes behind the data";
      ASSERT_EQ(out, encrypted) << n;
      ASSERT_EQ(wrappers.encrypt(data.data(), n, key_block.data(), kCbc, data.data()), padded_len);
      ASSERT_EQ(wrappers.decrypt(data.data(), padded_len, key_block.data(), kCbc, data.data()), n);
      ASSERT_EQ(data, filled(plain, room, 0)) << n;
    }
  }
}

TEST_F(Sm4Padding, OtherModesAreEcbForTheLocationServerAndNothingForTheDecodeServer) {
  const Bytes plain = random_bytes(generator, 50);
  Bytes data = filled(plain, 64, 0);
  EXPECT_EQ(scp_sm4Encrypt(data.data(), 50, key.data(), kOther, data.data()), 64);
  EXPECT_EQ(data, openssl_cipher(EVP_sm4_ecb(), true, key, {}, filled(plain, 64, 14)));
  EXPECT_EQ(scp_sm4Decrypt(data.data(), 64, key.data(), kOther, data.data()), 50);
  EXPECT_EQ(data, filled(plain, 64, 0));

  Bytes out(64, 0xEE);
  EXPECT_EQ(TQ_sm4Encrypt(data.data(), 50, key_block.data(), kOther, out.data()), 64);
  EXPECT_EQ(data + out, filled(plain, 64, 14) + Bytes(64, 0xEE));
  out[63] = 5;
  EXPECT_EQ(TQ_sm4Decrypt(data.data(), 64, key_block.data(), kOther, out.data()), 59);
  EXPECT_EQ(out, filled(Bytes(59, 0xEE), 64, 0));
}

// The last byte is believed as far as it fits; bad arguments change nothing.
TEST_F(Sm4Padding, OddPaddingAndArguments) {
  const struct {
    int32_t length;
    uint8_t last;
    int32_t result;
  } cases[] = {{16, 0, 16},  {16, 16, 0},   {16, 17, -1},  {32, 17, 15},
               {32, 33, -1}, {256, 255, 1}, {240, 255, -1}};
  Bytes data(48, 0xDD);
  uint8_t* const d = data.data();
  const uint8_t* const k = key_block.data();
  for (const auto& [encrypt, decrypt] : kWrappers) {
    for (const auto& c : cases) {
      Bytes plain = random_bytes(generator, static_cast<size_t>(c.length));
      plain.back() = c.last;
      const Bytes encrypted = openssl_cipher(EVP_sm4_cbc(), true, key, iv, plain);
      Bytes out(plain.size());
      EXPECT_EQ(decrypt(encrypted.data(), c.length, k, kCbc, out.data()), c.result);
      if (c.result >= 0) std::fill(plain.begin() + c.result, plain.end(), uint8_t{0});
      EXPECT_EQ(out, plain) << c.length << " " << int{c.last};
    }
    for (const int32_t length : {-1, -16, INT32_MIN, INT32_MAX, INT32_MAX - 15})
      EXPECT_EQ(encrypt(d, length, k, kCbc, d), -1) << length;
    for (const int32_t length : {0, 1, 15, 17, 47, -16, INT32_MIN, INT32_MAX})
      EXPECT_EQ(decrypt(d, length, k, kCbc, d), -1) << length;
    EXPECT_EQ(encrypt(nullptr, 16, k, kCbc, d), -1);
    EXPECT_EQ(encrypt(d, 16, nullptr, kCbc, d), -1);
    EXPECT_EQ(encrypt(d, 16, k, kCbc, nullptr), -1);
    EXPECT_EQ(decrypt(nullptr, 16, k, kCbc, d), -1);
    EXPECT_EQ(decrypt(d, 16, nullptr, kCbc, d), -1);
    EXPECT_EQ(decrypt(d, 16, k, kCbc, nullptr), -1);
  }
  EXPECT_EQ(data, Bytes(48, 0xDD));
}

}  // namespace
