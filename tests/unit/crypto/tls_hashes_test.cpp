// The hash classes of TLS and HMAC over them.
#include <gtest/gtest.h>

#include <array>
#include <random>
#include <string>
#include <type_traits>

#include "crypto/hmac.hpp"
#include "crypto/md5.hpp"
#include "crypto/sha1.hpp"
#include "crypto/sha256.hpp"
#include "support/bytes.hpp"
#include "support/openssl_peer.hpp"

namespace {

using test::Bytes;

template <class Hash>
const EVP_MD* openssl_md() {
  if (std::is_same_v<Hash, tq::Sha256>) return EVP_sha256();
  return std::is_same_v<Hash, tq::Sha1> ? EVP_sha1() : EVP_md5();
}

// Hash and Hmac have the same shape, but for the name of this length.
template <class Function>
constexpr size_t output_len() {
  if constexpr (requires { Function::kMacLen; }) {
    return Function::kMacLen;
  } else {
    return Function::kDigestLen;
  }
}

template <class Function>
Bytes finish(Function& function) {
  Bytes out(output_len<Function>());
  function.finish(std::span<uint8_t, output_len<Function>()>(out));
  return out;
}

template <class Function>
Bytes finish_hiding_length(Function& function, const Bytes& tail, size_t len) {
  Bytes out(output_len<Function>());
  function.finish_hiding_length(tail, len, std::span<uint8_t, output_len<Function>()>(out));
  return out;
}

template <class Hash>
std::string digest_of(const std::string& text) {
  Hash hash;
  hash.update(test::from_text(text));
  return test::hex(finish(hash));
}

template <class Hash>
std::string mac_of(const Bytes& key, const Bytes& data) {
  tq::Hmac<Hash> hmac(key);
  hmac.update(data);
  return test::hex(finish(hmac));
}

TEST(TlsHashes, PublishedExamples) {
  // FIPS 180-4
  EXPECT_EQ(digest_of<tq::Sha256>(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(digest_of<tq::Sha256>("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(digest_of<tq::Sha256>("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
            "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
  EXPECT_EQ(digest_of<tq::Sha256>(std::string(1000000, 'a')),
            "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
  EXPECT_EQ(digest_of<tq::Sha1>("abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
  // RFC 1321 appendix A.5
  EXPECT_EQ(digest_of<tq::Md5>(""), "d41d8cd98f00b204e9800998ecf8427e");
  EXPECT_EQ(digest_of<tq::Md5>("a"), "0cc175b9c0f1b6a831c399e269772661");
  EXPECT_EQ(digest_of<tq::Md5>("abc"), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(digest_of<tq::Md5>("message digest"), "f96b697d7cb7938d525a2f31aaf161d0");
  EXPECT_EQ(digest_of<tq::Md5>("abcdefghijklmnopqrstuvwxyz"), "c3fcd3d76192e4007dfb496cca67e13b");
  EXPECT_EQ(digest_of<tq::Md5>("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"),
            "d174ab98d277d9f5a5611c2c9f419d9f");
  EXPECT_EQ(
      digest_of<tq::Md5>("1234567890123456789012345678901234567890123456789012345678901234567890123456789"
                         "0"),
      "57edf4a22be3c955ac49da2e2107b67a");
}

// RFC 4231 (SHA-256) and RFC 2202 (SHA-1, MD5).
TEST(Hmac, PublishedExamples) {
  const Bytes jefe = test::from_text("Jefe");
  const Bytes question = test::from_text("what do ya want for nothing?");
  const Bytes larger = test::from_text("Test Using Larger Than Block-Size Key - Hash Key First");
  EXPECT_EQ(mac_of<tq::Sha256>(Bytes(20, 0x0B), test::from_text("Hi There")),
            "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7");
  EXPECT_EQ(mac_of<tq::Sha256>(jefe, question),
            "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
  EXPECT_EQ(mac_of<tq::Sha256>(Bytes(20, 0xAA), Bytes(50, 0xDD)),
            "773ea91e36800e46854db8ebd09181a72959098b3ef8c122d9635514ced565fe");
  EXPECT_EQ(mac_of<tq::Sha256>(Bytes(131, 0xAA), larger),
            "60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54");
  EXPECT_EQ(mac_of<tq::Sha1>(Bytes(20, 0x0B), test::from_text("Hi There")),
            "b617318655057264e28bc0b6fb378c8ef146be00");
  EXPECT_EQ(mac_of<tq::Sha1>(jefe, question), "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79");
  EXPECT_EQ(mac_of<tq::Sha1>(Bytes(80, 0xAA), larger), "aa4ae5e15272d00e95705637ce8a3b55ed402112");
  EXPECT_EQ(mac_of<tq::Md5>(Bytes(16, 0x0B), test::from_text("Hi There")),
            "9294727a3638bb1c13f48ef8158bfc9d");
  EXPECT_EQ(mac_of<tq::Md5>(jefe, question), "750c783e6ab0b503eaa86e310a5db738");
  EXPECT_EQ(mac_of<tq::Md5>(Bytes(80, 0xAA), larger), "6b1ab7fe4bd7bf8f0b62e6ce61b9d0cd");
}

template <class Hash>
class TlsHash : public testing::Test {};
using Hashes = testing::Types<tq::Sha256, tq::Sha1, tq::Md5>;
TYPED_TEST_SUITE(TlsHash, Hashes);

// One object for all messages: it is as new after each.
template <class Function, class Expected>
void feed_in_pieces(Function& function, Expected expected) {
  std::mt19937 generator(4231);
  for (size_t length = 0; length <= 300; ++length) {
    const Bytes data = test::random_bytes(generator, length);
    for (size_t at = 0; at < length;) {
      const auto first = data.begin() + static_cast<ptrdiff_t>(at);
      const Bytes piece(first,
                        first + static_cast<ptrdiff_t>(std::min<size_t>(generator() % 150, length - at)));
      function.update(piece);
      at += piece.size();
    }
    ASSERT_EQ(test::hex(finish(function)), test::hex(expected(data))) << length;
  }
}

TYPED_TEST(TlsHash, AgreesWithOpenSslHoweverItIsFed) {
  TypeParam hash;
  feed_in_pieces(hash, [](const Bytes& data) { return test::openssl_digest(openssl_md<TypeParam>(), data); });
}

TYPED_TEST(TlsHash, HmacAgreesWithOpenSslHoweverItIsFed) {
  std::mt19937 generator(2104);
  for (const size_t key_len : {0, 1, 16, 32, 63, 64, 65, 300}) {
    const Bytes key = test::random_bytes(generator, key_len);
    tq::Hmac<TypeParam> hmac(key);
    feed_in_pieces(
        hmac, [&key](const Bytes& data) { return test::openssl_hmac(openssl_md<TypeParam>(), key, data); });
  }
}

TYPED_TEST(TlsHash, ACopyGoesOnByItself) {
  std::mt19937 generator(5246);
  const Bytes data = test::random_bytes(generator, 100);
  TypeParam hash;
  hash.update(data);
  TypeParam copy = hash;
  copy.update(data);
  EXPECT_EQ(finish(hash), test::openssl_digest(openssl_md<TypeParam>(), data));
  Bytes twice = data;
  twice.insert(twice.end(), data.begin(), data.end());
  EXPECT_EQ(finish(copy), test::openssl_digest(openssl_md<TypeParam>(), twice));
}

// Every hidden length of tails around the block boundaries, behind heads that fill the block differently.
TYPED_TEST(TlsHash, HiddenLengths) {
  std::mt19937 generator(13);
  const Bytes key = test::random_bytes(generator, 20);
  TypeParam hash;
  tq::Hmac<TypeParam> hmac(key);
  for (const size_t head_len : {0, 1, 13, 55, 56, 63, 64, 77, 128}) {
    for (const size_t tail_len : {0, 1, 42, 43, 50, 51, 52, 63, 64, 65, 127, 257, 276}) {
      const Bytes head = test::random_bytes(generator, head_len);
      const Bytes tail = test::random_bytes(generator, tail_len);
      for (size_t len = 0; len <= tail_len; ++len) {
        Bytes message = head;
        message.insert(message.end(), tail.begin(), tail.begin() + static_cast<ptrdiff_t>(len));
        hash.update(head);
        ASSERT_EQ(finish_hiding_length(hash, tail, len),
                  test::openssl_digest(openssl_md<TypeParam>(), message))
            << head_len << " + " << len << " of " << tail_len;
        hmac.update(head);
        ASSERT_EQ(finish_hiding_length(hmac, tail, len),
                  test::openssl_hmac(openssl_md<TypeParam>(), key, message))
            << head_len << " + " << len << " of " << tail_len;
      }
    }
  }
}

}  // namespace
