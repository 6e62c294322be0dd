#include "passport/secure_messaging.h"

#include <gtest/gtest.h>

#include "passport/chip_peer.hpp"

namespace {

using namespace test;

const Bytes kEnc = from_hex("979ec13b1cbfe9dcd01ab0fed307eae5");
const Bytes kMac = from_hex("f1cb1f1fb5adf208806b89dc579dc1f8");
constexpr uint8_t kUntouched = 0xEE;

// The reader's side, with the library. Results are what the routine wrote, or "-1" when it refused and wrote
// nothing.
struct Reader {
  explicit Reader(uint64_t counter) : ssc(be(counter, 8)) {}

  std::string protect(const Bytes& command, bool with_le, size_t room) {
    Bytes out(room, kUntouched);
    const int32_t rc = RP_protect_apdu(command.data(), len(command), kEnc.data(), kMac.data(), ssc.data(),
                                       with_le ? 1 : 0, out.data(), len(out));
    return written(out, rc);
  }
  std::string unprotect(const Bytes& answer, size_t room = 300) {
    const uint8_t none = 0;
    Bytes out(room + 1, kUntouched);
    const int32_t rc = RP_unprotect_apdu(answer.empty() ? &none : answer.data(), len(answer), kEnc.data(),
                                         kMac.data(), ssc.data(), out.data(), static_cast<uint32_t>(room));
    return written(out, rc);
  }
  static std::string written(const Bytes& out, int32_t rc) {
    const auto length = static_cast<size_t>(std::max(rc, 0));
    EXPECT_LE(length, out.size());
    EXPECT_EQ(slice(out, length, out.size()), Bytes(out.size() - length, kUntouched));
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
    Chip chip(kEnc, kMac, kStart);
    for (size_t n = 2; n <= 300; ++n) {
      SCOPED_TRACE(n);
      const Bytes header = random_bytes(generator, 4);
      const Bytes data = random_bytes(generator, n);
      const Bytes plain = header + Bytes{static_cast<uint8_t>(n)} + data;
      const std::string sent = reader.protect(plain, with_le, 300);
      if (n <= (with_le ? 231U : 239U)) {
        ASSERT_TRUE(chip.accepts(from_hex(sent), Bytes{0x0C} + slice(header, 1, 4), data,
                                 with_le ? data.back() : -1));
      } else {
        ASSERT_EQ(sent, "-1");
      }
      ASSERT_EQ(reader.ssc, chip.ssc());
      const Bytes answer = chip.answer(chip.padded_cryptogram(slice(data, 2, n)) + from_hex("99029000"));
      ASSERT_EQ(reader.unprotect(answer), hex(data.data() + 2, n - 2));
      ASSERT_EQ(reader.ssc, chip.ssc());
    }
  }
}

TEST(SecureMessaging, CommandsWithoutData) {
  const struct {
    const char* command;
    int le;
  } cases[] = {{"00b0000004", 4}, {"00b00000", 0},   {"00b000000402", 2}, {"0088000008", 0},
               {"8088000008", 8}, {"0088000108", 8}, {"00b0000004", -1},  {"00880000", -1}};
  Reader reader(9);
  Chip chip(kEnc, kMac, 9);
  for (const auto& c : cases) {
    const Bytes command = from_hex(c.command);
    EXPECT_TRUE(chip.accepts(from_hex(reader.protect(command, c.le >= 0, 64)),
                             Bytes{0x0C} + slice(command, 1, 4), {}, c.le))
        << c.command;
  }
  const Bytes challenge = from_hex("0011223344556677");
  EXPECT_TRUE(chip.accepts(from_hex(reader.protect(from_hex("0088000008") + challenge, true, 38)),
                           from_hex("0c880000"), challenge, 0));
}

TEST(SecureMessaging, CommandsThatCannotBeProtected) {
  const Bytes select = from_hex("00a4020c02011e");
  Reader reader(1);
  for (const size_t n : {3, 70000}) EXPECT_EQ(reader.protect(Bytes(n, 1), true, 80000), "-1");
  EXPECT_EQ(reader.ssc.back(), 1);
  EXPECT_EQ(reader.protect(select, false, 26), "-1");
  EXPECT_EQ(reader.ssc.back(), 2);  // it advances before the room is looked at
  Bytes in_place = select + Bytes(20);
  Bytes ssc = reader.ssc;
  EXPECT_EQ(RP_protect_apdu(in_place.data(), 7, kEnc.data(), kMac.data(), ssc.data(), 0, in_place.data(), 27),
            27);
  EXPECT_EQ(hex(in_place), reader.protect(select, false, 27));
}

TEST(SecureMessaging, PaddingMacAndBadArguments) {
  Bytes b = from_hex("0123456789abcdef") + Bytes(56, kUntouched);
  Bytes mac(9, kUntouched);
  EXPECT_EQ(RP_doPadding(b.data(), 8, b.data()), 16);
  EXPECT_EQ(hex(slice(b, 8, 17)), "8000000000000000ee");
  ASSERT_EQ(create_message_auth_code(b.data(), 23, kMac.data(), mac.data(), 9), 0);  // 7 behind the blocks
  EXPECT_EQ(mac, retail_mac(kMac, slice(b, 0, 16)) + Bytes{kUntouched});
  for (int which = 0; which < 5; ++which) {
    const auto at = [&](int i) { return i == which ? nullptr : b.data(); };
    EXPECT_EQ(RP_protect_apdu(at(0), 7, at(1), at(2), at(3), 1, at(4), 64), -1);
    EXPECT_EQ(RP_unprotect_apdu(at(0), 64, at(1), at(2), at(3), at(4), 64), -1);
    if (which < 3) {
      EXPECT_EQ(create_message_auth_code(at(0), 8, at(1), at(2), 8), -1);
    }
    if (which < 2) {
      EXPECT_EQ(RP_update_SSC(at(0), at(1)), -1);
      EXPECT_EQ(RP_doPadding(at(0), 8, at(1)), -1);
    }
  }
  EXPECT_EQ(RP_doPadding(b.data(), uint32_t{INT32_MAX - 7}, b.data()), -1);
  EXPECT_EQ(RP_doPadding(nullptr, 0, b.data()), 8);
}

}  // namespace
