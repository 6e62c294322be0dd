#include "passport/access_control.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "passport/chip_peer.hpp"
#include "passport/mutual_authentication.hpp"

namespace {

using namespace test;

struct Keys {
  Bytes enc = Bytes(16);
  Bytes mac = Bytes(16);
};

Keys keys_of(const std::string& number, const std::string& birth, const std::string& expiry) {
  Keys keys;
  EXPECT_EQ(create_bassis_key(exact_text(number).data(), exact_text(birth).data(), exact_text(expiry).data(),
                              keys.enc.data(), keys.mac.data()),
            0);
  return keys;
}

void expect_derived_from(const Bytes& seed, const Keys& keys) {
  EXPECT_EQ(hex(keys.enc), hex(derived_key(seed, 1)));
  EXPECT_EQ(hex(keys.mac), hex(derived_key(seed, 2)));
}

// ICAO 9303-11 appendix D.1 to D.3.
TEST(AccessControl, WorkedExample) {
  const Keys keys = keys_of("L898902C<", "690806", "940623");
  EXPECT_EQ(hex(keys.enc), "ab94fdecf2674fdfb9b391f85d7f76f2");
  EXPECT_EQ(hex(keys.mac), "7962d9ece03d1acd4c76089dce131543");

  tq::BasicAccess access;
  const auto set = [](auto& secret, const char* value) {
    const Bytes bytes = from_hex(value);
    ASSERT_EQ(bytes.size(), secret.size());
    std::copy(bytes.begin(), bytes.end(), secret.data());
  };
  ASSERT_TRUE(tq::derive_document_keys({"L898902C<", "690806", "940623"}, access));
  EXPECT_EQ(hex(access.enc) + hex(access.mac), hex(keys.enc + keys.mac));
  set(access.rnd_ifd, "781723860c06c226");
  set(access.rnd_ic, "4608f91988702212");
  set(access.k_ifd, "0b795240cb7049b01c19b33e32804f0b");
  tq::Cryptogram cryptogram{};
  ASSERT_TRUE(tq::make_cryptogram(access, cryptogram));
  EXPECT_EQ(hex(cryptogram.e_ifd), "72c29c2371cc9bdb65b779b8e8d37b29ecc154aa56a8799fae2f498f76ed92f2");
  EXPECT_EQ(hex(cryptogram.m_ifd), "5f1448eea8ad90a7");

  tq::SecureChannel channel;
  const Bytes answer =
      from_hex("46b9342a41396cd7386bf5803104d7cedc122b9132139baf2eedc94ee178534f 2f2d235d074d7449");
  for (const size_t n : {0, 31}) EXPECT_FALSE(tq::open_channel(slice(answer, 0, n), access, channel)) << n;
  for (const size_t block : {0, 1}) {  // of the chip's nonce, of ours
    Bytes wrong = answer;
    wrong[8 * block] ^= 1;
    EXPECT_FALSE(tq::open_channel(wrong, access, channel)) << block;
  }
  const Bytes wrong_mac = slice(answer, 0, 39) + Bytes(1);
  for (const Bytes& good : {answer, wrong_mac}) {  // the nonces decide
    ASSERT_TRUE(tq::open_channel(good, access, channel));
    EXPECT_EQ(hex(channel.counter()), "887022120c06c226");
    Bytes sent(64);
    size_t length = 0;
    const Bytes com = {0x01, 0x1E};
    ASSERT_TRUE(channel.protect({{0x00, 0xA4, 0x02, 0x0C}, com}, sent, length));
    EXPECT_EQ(hex(slice(sent, 0, length)), "0ca4020c158709016375432908c044f68e08bf8b92d635ff24f800");
  }
}

// The whole machine-readable information stands here, check digits included.
TEST(AccessControl, KeysOfTheMachineReadableZone) {
  const struct {
    const char* number;
    const char* birth;
    const char* expiry;
    const char* information;
  } cases[] = {
      {"D23145890734", "340712", "950712", "D23145890734934071279507122"},  // the same, a longer number
      {"l898902c<", "690806", "940623", "L898902C<369080619406236"},        // in lower case
      {"AB12<<<<<", "000000", "991399", "AB12<<<<<800000009913998"},
      {"ZZZZZZZZZZZZZZZZZZZZ", "111111", "999999", "ZZZZZZZZZZZZZZZZZZZZ011111129999998"},
      {"1/2", "/", "", "1/29/00"},  // what has no value still has its place
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.information);
    expect_derived_from(slice(openssl_digest(EVP_sha1(), from_text(c.information)), 0, 16),
                        keys_of(c.number, c.birth, c.expiry));
  }
}

TEST(AccessControl, NullPointersAreRefused) {
  Bytes key(16);
  for (int which = 0; which < 5; ++which) {
    const char* const texts[] = {which == 0 ? nullptr : "L898902C<", which == 1 ? nullptr : "690806",
                                 which == 2 ? nullptr : "940623"};
    const auto at = [&](int i) { return i == which ? nullptr : key.data(); };
    EXPECT_EQ(create_bassis_key(texts[0], texts[1], texts[2], at(3), at(4)), -1);
    if (which > 1) {
      EXPECT_EQ(create_key_share(at(2), at(3), at(4)), -1);
    }
  }
  EXPECT_EQ(passport_external_auth(nullptr, nullptr, key.data(), 4), -1);
  EXPECT_EQ(passport_external_auth(nullptr, key.data(), nullptr, 4), -1);
  EXPECT_EQ(key, Bytes(16));
}

}  // namespace
