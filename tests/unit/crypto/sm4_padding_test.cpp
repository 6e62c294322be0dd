#include "crypto/sm4_padding.h"

#include <gtest/gtest.h>

#include <algorithm>
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

Bytes filled(Bytes data, size_t size, uint8_t value) {
  data.resize(size, value);
  return data;
}

struct Wrappers {
  decltype(&TQ_sm4Encrypt) encrypt;
  decltype(&TQ_sm4Decrypt) decrypt;
};
const Wrappers kWrappers[] = {{TQ_sm4Encrypt, TQ_sm4Decrypt}, {scp_sm4Encrypt, scp_sm4Decrypt}};

// The decode server's key block gets the location server's vector, so that both wrappers must agree.
class Sm4Padding : public testing::Test {
 protected:
  Sm4Padding() : key(test::random_bytes(generator, 16)), iv(folded_iv(key)), key_block(key) {
    key_block.resize(32);
    TQ_sm4InitIv(key.data(), key_block.data() + 16);
  }

  std::mt19937 generator{11};
  Bytes key;
  Bytes iv;
  Bytes key_block;
};

TEST_F(Sm4Padding, EveryLengthBothWays) {
  for (const auto& wrappers : kWrappers) {
    for (int32_t n = 0; n <= 300; ++n) {
      const int32_t padded_len = n / 16 * 16 + 16;
      const auto room = static_cast<size_t>(padded_len);
      const Bytes plain = test::random_bytes(generator, static_cast<size_t>(n));
      const Bytes padded = filled(plain, room, static_cast<uint8_t>(padded_len - n));
      const Bytes encrypted = test::openssl_cipher(EVP_sm4_cbc(), true, key, iv, padded);
      Bytes data = filled(plain, room, 0);
      Bytes out(room);
      ASSERT_EQ(wrappers.encrypt(data.data(), n, key_block.data(), kCbc, out.data()), padded_len);
      ASSERT_EQ(data, padded) << "the padding goes behind the data";
      ASSERT_EQ(wrappers.encrypt(data.data(), n, key_block.data(), kCbc, data.data()), padded_len);
      ASSERT_EQ(out, encrypted) << n;
      ASSERT_EQ(data, encrypted) << n;
      ASSERT_EQ(wrappers.decrypt(encrypted.data(), padded_len, key_block.data(), kCbc, out.data()), n);
      ASSERT_EQ(wrappers.decrypt(data.data(), padded_len, key_block.data(), kCbc, data.data()), n);
      ASSERT_EQ(out, filled(plain, room, 0)) << n;
      ASSERT_EQ(data, out) << n;
    }
  }
}

TEST_F(Sm4Padding, OtherModesAreEcbForTheLocationServer) {
  const Bytes plain = test::random_bytes(generator, 50);
  Bytes data = filled(plain, 64, 0);
  EXPECT_EQ(scp_sm4Encrypt(data.data(), 50, key.data(), kOther, data.data()), 64);
  EXPECT_EQ(data, test::openssl_cipher(EVP_sm4_ecb(), true, key, {}, filled(plain, 64, 14)));
  EXPECT_EQ(scp_sm4Decrypt(data.data(), 64, key.data(), kOther, data.data()), 50);
  EXPECT_EQ(data, filled(plain, 64, 0));
}

TEST_F(Sm4Padding, OtherModesLeaveOutTheCipherForTheDecodeServer) {
  Bytes data(32, 0xDD);
  Bytes out(32, 0xEE);
  EXPECT_EQ(TQ_sm4Encrypt(data.data(), 20, key_block.data(), kOther, out.data()), 32);
  EXPECT_EQ(data, filled(Bytes(20, 0xDD), 32, 12));
  EXPECT_EQ(out, Bytes(32, 0xEE));
  out[31] = 5;
  EXPECT_EQ(TQ_sm4Decrypt(data.data(), 32, key_block.data(), kOther, out.data()), 27);
  EXPECT_EQ(out, filled(Bytes(27, 0xEE), 32, 0));
}

TEST_F(Sm4Padding, LastByteIsBelievedAsFarAsItFits) {
  struct Case {
    int32_t length;
    uint8_t last;
    int32_t result;
  };
  const Case cases[] = {{16, 0, 16},  {16, 16, 0},   {16, 17, -1},  {32, 17, 15},
                        {32, 33, -1}, {256, 255, 1}, {240, 255, -1}};
  for (const auto& wrappers : kWrappers) {
    for (const auto& c : cases) {
      Bytes plain = test::random_bytes(generator, static_cast<size_t>(c.length));
      plain.back() = c.last;
      const Bytes encrypted = test::openssl_cipher(EVP_sm4_cbc(), true, key, iv, plain);
      Bytes out(plain.size());
      EXPECT_EQ(wrappers.decrypt(encrypted.data(), c.length, key_block.data(), kCbc, out.data()), c.result);
      if (c.result >= 0) std::fill(plain.begin() + c.result, plain.end(), uint8_t{0});
      EXPECT_EQ(out, plain) << c.length << " " << int{c.last};
    }
  }
}

TEST_F(Sm4Padding, BadArgumentsAreRefusedUntouched) {
  Bytes data(48, 0xDD);
  Bytes out(48, 0xEE);
  constexpr int32_t most = std::numeric_limits<int32_t>::max();
  constexpr int32_t least = std::numeric_limits<int32_t>::min();
  for (const auto& [encrypt, decrypt] : kWrappers) {
    for (const int32_t length : {-1, -16, least, most, most - 15}) {
      EXPECT_EQ(encrypt(data.data(), length, key_block.data(), kCbc, out.data()), -1) << length;
    }
    for (const int32_t length : {0, 1, 15, 17, 47, -16, least, most}) {
      EXPECT_EQ(decrypt(data.data(), length, key_block.data(), kCbc, out.data()), -1) << length;
    }
    EXPECT_EQ(encrypt(nullptr, 16, key_block.data(), kCbc, out.data()), -1);
    EXPECT_EQ(encrypt(data.data(), 16, nullptr, kCbc, out.data()), -1);
    EXPECT_EQ(encrypt(data.data(), 16, key_block.data(), kCbc, nullptr), -1);
    EXPECT_EQ(decrypt(nullptr, 16, key_block.data(), kCbc, out.data()), -1);
    EXPECT_EQ(decrypt(data.data(), 16, nullptr, kCbc, out.data()), -1);
    EXPECT_EQ(decrypt(data.data(), 16, key_block.data(), kCbc, nullptr), -1);
  }
  EXPECT_EQ(data, Bytes(48, 0xDD));
  EXPECT_EQ(out, Bytes(48, 0xEE));
}

}  // namespace
