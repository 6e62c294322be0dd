#include "crypto/rc4.hpp"

#include <gtest/gtest.h>

#include <random>

#include "support/bytes.hpp"
#include "support/openssl_peer.hpp"

namespace {

using test::Bytes;

// RFC 6229 section 2: the key stream at several places.
struct Example {
  const char* key;
  size_t at;
  const char* stream;
};

const Example kExamples[] = {
    {"0102030405", 0, "b2396305f03dc027ccc3524a0a1118a8 6982944f18fc82d589c403a47a0d0919"},
    {"0102030405", 4096, "ff25b58995996707e51fbdf08b34d875"},
    {"0102030405060708090a0b0c0d0e0f10", 0,
     "9ac7cc9a609d1ef7b2932899cde41b97 5248c4959014126a6e8a84f11d1a9e1c"},
    {"0102030405060708090a0b0c0d0e0f10", 240, "065902e4b620f6cc36c8589f66432f2b"},
    {"0102030405060708090a0b0c0d0e0f10", 4096, "a36a4c301ae8ac13610ccbc12256cacc"},
    {"0102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f20", 0,
     "eaa6bd25880bf93d3f5d1e4ca2611d91"},
};

TEST(Rc4, PublishedExamples) {
  for (const Example& example : kExamples) {
    const Bytes expected = test::from_hex(example.stream);
    Bytes stream(example.at + expected.size());
    tq::Rc4(test::from_hex(example.key)).apply(stream, stream);
    stream.erase(stream.begin(), stream.begin() + static_cast<ptrdiff_t>(example.at));
    EXPECT_EQ(test::hex(stream), test::hex(expected)) << example.key << " at " << example.at;
  }
}

TEST(Rc4, AgreesWithOpenSslHoweverItIsFed) {
  std::mt19937 generator(6229);
  for (size_t length = 0; length <= 300; ++length) {
    const Bytes key = test::random_bytes(generator, 16);
    const Bytes plain = test::random_bytes(generator, length);
    const Bytes cipher = test::openssl_cipher(EVP_rc4(), true, key, {}, plain);
    Bytes out(length);
    tq::Rc4(key).apply(plain, out);
    ASSERT_EQ(out, cipher) << length;
    tq::Rc4 continued(key);
    for (size_t at = 0; at < length;) {  // back, in place
      const auto piece = std::span(out).subspan(at, std::min<size_t>(generator() % 90, length - at));
      continued.apply(piece, piece);
      at += piece.size();
    }
    ASSERT_EQ(out, plain) << length;
  }
}

}  // namespace
