#include "passport/access_control.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "crypto/des.h"
#include "passport/chip_peer.hpp"
#include "passport/secure_messaging.h"

namespace {

using test::Bytes;
using test::from_hex;
using test::hex;
using test::operator+;

struct Keys {
  Bytes enc = Bytes(16);
  Bytes mac = Bytes(16);
};

Keys keys_of(const std::string& number, const std::string& birth, const std::string& expiry) {
  Keys keys;
  EXPECT_EQ(create_bassis_key(test::exact_text(number).data(), test::exact_text(birth).data(),
                              test::exact_text(expiry).data(), keys.enc.data(), keys.mac.data()),
            0);
  return keys;
}

void expect_derived_from(const Bytes& seed, const Keys& keys) {
  EXPECT_EQ(hex(keys.enc), hex(test::derived_key(seed, 1)));
  EXPECT_EQ(hex(keys.mac), hex(test::derived_key(seed, 2)));
}

// ICAO 9303-11 appendix D.1 to D.3.
TEST(AccessControl, WorkedExample) {
  const Keys keys = keys_of("L898902C<", "690806", "940623");
  EXPECT_EQ(hex(keys.enc), "ab94fdecf2674fdfb9b391f85d7f76f2");
  EXPECT_EQ(hex(keys.mac), "7962d9ece03d1acd4c76089dce131543");

  // RND.IFD, RND.IC, K.IFD
  Bytes s = from_hex("781723860c06c226 4608f91988702212 0b795240cb7049b01c19b33e32804f0b");
  TQ_DES3_CTX ctx;
  tq_des3_set2key_enc(&ctx, keys.enc.data());
  Bytes iv(8);
  EXPECT_EQ(tq_des3_crypt_cbc(&ctx, 1, 32, iv.data(), s.data(), s.data()), 0);
  EXPECT_EQ(hex(s), "72c29c2371cc9bdb65b779b8e8d37b29ecc154aa56a8799fae2f498f76ed92f2");
  Bytes padded(40);
  Bytes mac(8);
  EXPECT_EQ(RP_doPadding(s.data(), 32, padded.data()), 40);
  EXPECT_EQ(create_message_auth_code(padded.data(), 40, keys.mac.data(), mac.data(), 8), 0);
  EXPECT_EQ(hex(mac), "5f1448eea8ad90a7");

  Bytes answer = from_hex("46b9342a41396cd7386bf5803104d7cedc122b9132139baf2eedc94ee178534f");
  tq_des3_set2key_dec(&ctx, keys.enc.data());
  iv.assign(8, 0);
  EXPECT_EQ(tq_des3_crypt_cbc(&ctx, 0, 32, iv.data(), answer.data(), answer.data()), 0);
  EXPECT_EQ(hex(answer), "4608f91988702212781723860c06c2260b4f80323eb3191cb04970cb4052790b");
  Bytes seed = from_hex("0b795240cb7049b01c19b33e32804f0b");
  for (size_t i = 0; i < seed.size(); ++i) seed[i] ^= answer[16 + i];
  EXPECT_EQ(hex(seed), "0036d272f5c350acac50c3f572d23600");
  Keys session;
  EXPECT_EQ(create_key_share(seed.data(), session.enc.data(), session.mac.data()), 0);
  EXPECT_EQ(hex(session.enc), "979ec13b1cbfe9dcd01ab0fed307eae5");
  EXPECT_EQ(hex(session.mac), "f1cb1f1fb5adf208806b89dc579dc1f8");
}

// The whole machine-readable information stands here, check digits included.
TEST(AccessControl, KeysOfTheMachineReadableZone) {
  const struct {
    const char* number;
    const char* birth;
    const char* expiry;
    const char* information;
  } cases[] = {
      {"L898902C<", "690806", "940623", "L898902C<369080619406236"},        // ICAO 9303-11 appendix D.2
      {"D23145890734", "340712", "950712", "D23145890734934071279507122"},  // the same, a longer number
      {"l898902c<", "690806", "940623", "L898902C<369080619406236"},        // in lower case
      {"AB12<<<<<", "000000", "991399", "AB12<<<<<800000009913998"},
      {"ZZZZZZZZZZZZZZZZZZZZ", "111111", "999999", "ZZZZZZZZZZZZZZZZZZZZ011111129999998"},
      {"1/2", "/", "", "1/29/00"},  // what has no value still has its place
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.information);
    expect_derived_from(test::slice(test::openssl_digest(EVP_sha1(), test::from_text(c.information)), 0, 16),
                        keys_of(c.number, c.birth, c.expiry));
  }
}

TEST(AccessControl, KeysOfASeed) {
  std::mt19937 generator(41);
  for (int i = 0; i < 200; ++i) {
    const Bytes seed = test::random_bytes(generator, 16);
    Keys keys;
    ASSERT_EQ(create_key_share(seed.data(), keys.enc.data(), keys.mac.data()), 0);
    expect_derived_from(seed, keys);
    Keys in_place = {seed, Bytes(16)};
    ASSERT_EQ(create_key_share(in_place.enc.data(), in_place.enc.data(), in_place.mac.data()), 0);
    ASSERT_EQ(in_place.enc + in_place.mac, keys.enc + keys.mac);
  }
}

TEST(AccessControl, NullPointersAreRefused) {
  Bytes key(16);
  uint8_t* k = key.data();
  EXPECT_EQ(create_bassis_key(nullptr, "690806", "940623", k, k), -1);
  EXPECT_EQ(create_bassis_key("L898902C<", nullptr, "940623", k, k), -1);
  EXPECT_EQ(create_bassis_key("L898902C<", "690806", nullptr, k, k), -1);
  EXPECT_EQ(create_bassis_key("L898902C<", "690806", "940623", nullptr, k), -1);
  EXPECT_EQ(create_bassis_key("L898902C<", "690806", "940623", k, nullptr), -1);
  EXPECT_EQ(create_key_share(nullptr, k, k), -1);
  EXPECT_EQ(create_key_share(k, nullptr, k), -1);
  EXPECT_EQ(create_key_share(k, k, nullptr), -1);
  EXPECT_EQ(key, Bytes(16));
}

TEST(AccessControl, Commands) {
  std::string sent;
  SessionConfig cfg{};
  share_register_card_callback(
      &cfg,
      [](const uint8_t* apdu, uint32_t length, uint8_t serial, void* user_data) {
        *static_cast<std::string*>(user_data) += hex(apdu, length) + "/" + std::to_string(serial) + " ";
        return 0;
      },
      &sent);
  const Bytes e_ifd(32, 0xE1);
  const Bytes m_ifd(8, 0xA2);
  EXPECT_EQ(passport_find_card(&cfg, 1), 0);
  EXPECT_EQ(passport_rand_number_IC(&cfg, 2), 0);
  EXPECT_EQ(passport_external_auth(&cfg, e_ifd.data(), m_ifd.data(), 255), 0);
  EXPECT_EQ(passport_external_auth(&cfg, nullptr, m_ifd.data(), 4), -1);
  EXPECT_EQ(passport_external_auth(&cfg, e_ifd.data(), nullptr, 4), -1);
  EXPECT_EQ(passport_external_auth(nullptr, e_ifd.data(), m_ifd.data(), 4), 0);  // as the relay has it
  EXPECT_EQ(sent, "00a4040c07a0000002471001/1 0084000008/2 0082000028" + hex(e_ifd) + hex(m_ifd) + "28/255 ");
}

}  // namespace
