#include "passport/secure_messaging.h"

#include <gtest/gtest.h>

#include <random>
#include <sstream>

#include "passport/chip_peer.hpp"

namespace {

using test::Bytes;
using test::from_hex;
using test::hex;
using test::operator+;

const Bytes kEnc = from_hex("979ec13b1cbfe9dcd01ab0fed307eae5");
const Bytes kMac = from_hex("f1cb1f1fb5adf208806b89dc579dc1f8");
constexpr uint8_t kUntouched = 0xEE;

// The reader's side, with the library. Results are what the routine wrote, or "-1" when it refused and wrote
// nothing.
struct Reader {
  explicit Reader(uint64_t counter) : ssc(test::Chip::counter(counter)) {}

  std::string protect(const Bytes& command, bool with_le, size_t room) {
    Bytes out(std::max<size_t>(room, 1), kUntouched);
    const int32_t rc = RP_protect_apdu(test::exact_copy(command, command.size()).data(),
                                       static_cast<uint32_t>(command.size()), kEnc.data(), kMac.data(),
                                       ssc.data(), with_le ? 1 : 0, out.data(), static_cast<uint32_t>(room));
    return written(out, rc);
  }
  std::string unprotect(const Bytes& answer, size_t room = 300) {
    Bytes in = test::exact_copy(answer, answer.size());
    if (in.empty()) in.reserve(1);
    Bytes out(std::max<size_t>(room, 1), kUntouched);
    const int32_t rc = RP_unprotect_apdu(in.data(), static_cast<uint32_t>(in.size()), kEnc.data(),
                                         kMac.data(), ssc.data(), out.data(), static_cast<uint32_t>(room));
    return written(out, rc);
  }
  static std::string written(const Bytes& out, int32_t rc) {
    const auto length = static_cast<size_t>(std::max(rc, 0));
    EXPECT_LE(length, out.size());
    EXPECT_EQ(test::slice(out, length, out.size()), Bytes(out.size() - length, kUntouched));
    return rc < 0 ? std::to_string(rc) : hex(out.data(), length);
  }

  Bytes ssc;
};

// ICAO 9303-11 appendix D.4.
TEST(SecureMessaging, WorkedExample) {
  const struct {
    const char* command;
    bool with_le;
    const char* sent;
    const char* answer;
    const char* data;
  } exchanges[] = {
      {"00a4020c02011e", false, "0ca4020c158709016375432908c044f68e08bf8b92d635ff24f800",
       "990290008e08fa855a5d4c50a8ed", ""},
      {"00b0000004", true, "0cb000000d9701048e08ed6705417e96ba5500",
       "8709019ff0ec34f9922651990290008e08ad55cc17140b2ded", "60145f01"},
      {"00b0000412", true, "0cb000040d9701128e082ea28a70f3c7b53500",
       "871901fb9235f4e4037f2327dcc8964f1f9b8c30f42c8e2fff224a990290008e08c8b2787eaea07d74",
       "04303130365f36063034303030305c026175"},
  };
  Reader reader(0x887022120C06C226);
  for (const auto& e : exchanges) {
    EXPECT_EQ(reader.protect(from_hex(e.command), e.with_le, 64), e.sent);
    EXPECT_EQ(reader.unprotect(from_hex(e.answer)), e.data);
  }
  EXPECT_EQ(hex(reader.ssc), "887022120c06c22c");
}

// Through the end of the counter. Commands end where the one-byte Lc does.
TEST(SecureMessaging, EveryLengthAgainstAnIndependentChip) {
  constexpr uint64_t kStart = UINT64_MAX - 500;
  std::mt19937 generator(43);
  for (const bool with_le : {false, true}) {
    Reader reader(kStart);
    test::Chip chip(kEnc, kMac, kStart);
    for (size_t n = 2; n <= 300; ++n) {
      SCOPED_TRACE(n);
      const Bytes header = test::random_bytes(generator, 4);
      const Bytes data = test::random_bytes(generator, n);
      const Bytes plain = header + Bytes{static_cast<uint8_t>(n)} + data;
      const std::string sent = reader.protect(plain, with_le, 300);
      if (n <= (with_le ? 231U : 239U)) {
        ASSERT_TRUE(chip.accepts(from_hex(sent), Bytes{0x0C} + test::slice(header, 1, 4), data,
                                 with_le ? data.back() : -1));
      } else {
        ASSERT_EQ(sent, "-1");
      }
      ASSERT_EQ(reader.ssc, chip.ssc());
      const Bytes content = test::padded(test::slice(data, 0, n - 2));
      const size_t form = test::Chip::shortest_form(content.size() + 1);
      const Bytes answer = chip.answer(chip.cryptogram(content, form) + from_hex("99029000"));
      ASSERT_EQ(reader.unprotect(answer), hex(data.data(), n - 2));
      ASSERT_EQ(reader.ssc, chip.ssc());
    }
  }
}

TEST(SecureMessaging, CommandsWithoutData) {
  const struct {
    const char* command;
    int le;
  } cases[] = {{"00b0000004", 4},   {"00b07fff00", 0},  {"0084000008", 8}, {"00b00000", 0},
               {"00b000000402", 2}, {"0088000008", 0},  {"8088000008", 8}, {"0088000108", 8},
               {"00880000", 0},     {"00b0000004", -1}, {"00880000", -1}};
  Reader reader(9);
  test::Chip chip(kEnc, kMac, 9);
  for (const auto& c : cases) {
    const Bytes command = from_hex(c.command);
    EXPECT_TRUE(chip.accepts(from_hex(reader.protect(command, c.le >= 0, 64)),
                             Bytes{0x0C} + test::slice(command, 1, 4), {}, c.le))
        << c.command;
  }
  const Bytes challenge = from_hex("0011223344556677");
  EXPECT_TRUE(chip.accepts(from_hex(reader.protect(from_hex("0088000008") + challenge, true, 38)),
                           from_hex("0c880000"), challenge, 0));
}

TEST(SecureMessaging, CommandsThatCannotBeProtected) {
  Reader reader(1);
  for (size_t n = 0; n < 4; ++n) EXPECT_EQ(reader.protect(Bytes(n, 1), true, 64), "-1");
  EXPECT_EQ(reader.protect(Bytes(70000, 1), true, 80000), "-1");
  EXPECT_EQ(reader.ssc.back(), 1);
  for (const size_t room : {0U, 1U, 18U, 26U})
    EXPECT_EQ(reader.protect(from_hex("00a4020c02011e"), false, room), "-1");
  EXPECT_EQ(reader.ssc.back(), 5);  // it advances before the room is looked at
  EXPECT_EQ(reader.protect(from_hex("00a4020c02011e"), false, 27).size(), 54U);
  EXPECT_EQ(reader.protect(from_hex("00b0000004"), true, 19).size(), 38U);

  // In place.
  Bytes buffer = from_hex("00a4020c02011e");
  buffer.resize(27);
  const std::string expected = Reader(8).protect(test::slice(buffer, 0, 7), false, 64);
  Bytes ssc = test::Chip::counter(8);
  EXPECT_EQ(RP_protect_apdu(buffer.data(), 7, kEnc.data(), kMac.data(), ssc.data(), 0, buffer.data(), 27),
            27);
  EXPECT_EQ(hex(buffer), expected);
}

TEST(SecureMessaging, EveryChangedOrMissingByteIsRefused) {
  test::Chip chip(kEnc, kMac, 20);
  const Bytes answer =
      chip.answer(chip.cryptogram(test::padded(from_hex("60145f0102")), 1) + from_hex("99029000"));
  for (size_t i = 0; i < answer.size(); ++i) {
    Reader reader(20);
    EXPECT_EQ(reader.unprotect(test::exact_copy(answer, i)), "-1") << i;
    EXPECT_EQ(reader.ssc.back(), 20) << i;
    for (unsigned bit = 0; bit < 8; ++bit) {
      Bytes changed = answer;
      changed[i] ^= static_cast<uint8_t>(1U << bit);
      reader.ssc = test::Chip::counter(20);
      EXPECT_EQ(reader.unprotect(changed), "-1") << i;
      EXPECT_TRUE(i < answer.size() - 8 || reader.ssc.back() == 21) << i;
    }
  }
  Reader reader(20);
  EXPECT_EQ(reader.unprotect(answer), "60145f0102");
  EXPECT_EQ(reader.unprotect(answer), "-1");  // repeated
}

// Each ends with a MAC that would be right.
TEST(SecureMessaging, MalformedAnswersDoNotMoveTheCounter) {
  std::istringstream cases(
      "8700 870101 87010199029000 8780 878000 8783000009 8783000009010011223344556677 "
      "87ff010011223344556677 8708011122334455667788 870a010011223344556677 87080111223344556677 "
      "877f010011223344556677 8781ff010011223344556677 8782ffff010011223344556677 87 8781 878200 "
      "99 99ff9000 9902900099029000 990290008709010011223344556677 970104 8509010011223344556677 "
      "00");
  test::Chip chip(kEnc, kMac, 7);
  for (std::string c; cases >> c;) {
    Reader reader(7);
    EXPECT_EQ(reader.unprotect(test::Chip(chip).answer(from_hex(c))), "-1") << c;
    EXPECT_EQ(reader.ssc.back(), 7) << c;
  }
  const Bytes good = chip.answer(from_hex("99029000"));
  for (const size_t length : {0U, 4U, 7U, 9U, 0x80U, 0x81U, 255U}) {  // of the MAC
    Bytes changed = good;
    changed[5] = static_cast<uint8_t>(length);
    if (length > 8) changed.resize(6 + length);
    Reader reader(7);
    EXPECT_EQ(reader.unprotect(changed), "-1") << length;
    EXPECT_EQ(reader.ssc.back(), 7) << length;
    EXPECT_EQ(reader.unprotect(good + Bytes(1)), "");  // what follows the MAC is not looked at
  }
}

TEST(SecureMessaging, PaddingAndForms) {
  const struct {
    const char* content;  // deciphered
    const char* data;
  } cases[] = {{"60145f0180000000", "60145f01"},
               {"8000000000000000", ""},
               {"0000000000000000", ""},
               {"1122334455667788", "1122334455667788"},
               {"1122334400000000", "11223344"},
               {"1180800000000000", "1180"},
               {"1122334455667780", "11223344556677"},
               {"11223344556677888000000000000000", "1122334455667788"},
               {"11223344556677800000000000000000", "11223344556677"}};
  test::Chip chip(kEnc, kMac, 0);
  Reader reader(0);
  for (const auto& c : cases) {
    for (const size_t form : {0U, 1U, 2U}) {
      for (const char* status : {"99029000", "9900", "990362820a", ""}) {
        const Bytes objects = chip.cryptogram(from_hex(c.content), form) + from_hex(status);
        EXPECT_EQ(reader.unprotect(chip.answer(objects)), c.data) << c.content << form << status;
        const std::string data = c.data;
        for (const size_t room : {0U, 1U, 7U}) {
          EXPECT_EQ(reader.unprotect(chip.answer(objects), room), data.substr(0, 2 * room)) << c.content;
        }
        Bytes in_place = chip.answer(objects);
        const int32_t length = RP_unprotect_apdu(in_place.data(), static_cast<uint32_t>(in_place.size()),
                                                 kEnc.data(), kMac.data(), reader.ssc.data(), in_place.data(),
                                                 static_cast<uint32_t>(in_place.size()));
        ASSERT_EQ(length, static_cast<int32_t>(data.size() / 2));
        EXPECT_EQ(hex(in_place.data(), data.size() / 2), data);
      }
    }
  }
  EXPECT_EQ(reader.unprotect(chip.answer(from_hex("99029000"))), "");
  EXPECT_EQ(reader.unprotect(chip.answer({})), "");
  EXPECT_EQ(reader.ssc, chip.ssc());
}

TEST(SecureMessaging, PaddingAndMacOfEveryLength) {
  std::mt19937 generator(44);
  for (size_t n = 0; n <= 300; ++n) {
    const Bytes data = test::random_bytes(generator, n);
    const Bytes key = test::random_bytes(generator, 16);
    Bytes padded(n / 8 * 8 + 8, kUntouched);
    std::copy(data.begin(), data.end(), padded.begin());
    ASSERT_EQ(RP_doPadding(padded.data(), static_cast<uint32_t>(n), padded.data()),
              static_cast<int32_t>(padded.size()));
    ASSERT_EQ(padded, test::padded(data));
    for (const uint32_t out_len : {8U, 4U, 0U, 9U}) {
      Bytes mac(9, kUntouched);  // what is behind the whole blocks does not count
      ASSERT_EQ(create_message_auth_code((padded + Bytes(n % 8)).data(),
                                         static_cast<uint32_t>(padded.size() + n % 8), key.data(), mac.data(),
                                         out_len),
                0);
      const size_t written = std::min(out_len, 8U);
      ASSERT_EQ(mac, test::slice(test::retail_mac(key, padded), 0, written) + Bytes(9 - written, kUntouched));
    }
  }
}

TEST(SecureMessaging, Counter) {
  const std::pair<const char*, const char*> cases[] = {{"0000000000000000", "0000000000000001"},
                                                       {"00000000ffffffff", "0000000100000000"},
                                                       {"887022120c06c226", "887022120c06c227"},
                                                       {"ffffffffffffffff", "0000000000000000"}};
  for (const auto& [before, after] : cases) {
    Bytes ssc = from_hex(before);
    Bytes next(8);
    EXPECT_EQ(RP_update_SSC(ssc.data(), next.data()), 0);
    EXPECT_EQ(hex(next), after);
    EXPECT_EQ(RP_update_SSC(ssc.data(), ssc.data()), 0);
    EXPECT_EQ(hex(ssc), after);
  }
}

TEST(SecureMessaging, NullPointersAreRefused) {
  Bytes b(64, 1);
  uint8_t* const p = b.data();
  for (int which = 0; which < 5; ++which) {
    const auto at = [&](int i) { return i == which ? nullptr : p; };
    EXPECT_EQ(RP_protect_apdu(at(0), 7, at(1), at(2), at(3), 1, at(4), 64), -1);
    EXPECT_EQ(RP_unprotect_apdu(at(0), 64, at(1), at(2), at(3), at(4), 64), -1);
  }
  EXPECT_EQ(create_message_auth_code(nullptr, 8, p, p, 8), -1);
  EXPECT_EQ(create_message_auth_code(p, 8, nullptr, p, 8), -1);
  EXPECT_EQ(create_message_auth_code(p, 8, p, nullptr, 8), -1);
  EXPECT_EQ(RP_update_SSC(nullptr, p), -1);
  EXPECT_EQ(RP_update_SSC(p, nullptr), -1);
  EXPECT_EQ(RP_doPadding(nullptr, 8, p), -1);
  EXPECT_EQ(RP_doPadding(p, 8, nullptr), -1);
  EXPECT_EQ(b, Bytes(64, 1));
  EXPECT_EQ(RP_doPadding(p, UINT32_MAX, p), -1);
  EXPECT_EQ(RP_doPadding(p, INT32_MAX - 7, p), -1);
  EXPECT_EQ(RP_doPadding(nullptr, 0, p), 8);
  EXPECT_EQ(hex(p, 9), "800000000000000001");
}

}  // namespace
