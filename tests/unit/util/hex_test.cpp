#include "util/hex.h"

#include <gtest/gtest.h>

#include <string>

#include "support/bytes.hpp"

namespace {

using test::Bytes;

struct HexSet {
  decltype(&hexStringToBytes) to_bytes;
  decltype(&bytesToHexString) to_text;
};

class Hex : public testing::TestWithParam<HexSet> {};
INSTANTIATE_TEST_SUITE_P(BothNames, Hex,
                         testing::Values(HexSet{hexStringToBytes, bytesToHexString},
                                         HexSet{scpHexStringToBytes, scpBytesToHexString}));

TEST_P(Hex, ReadsPairs) {
  struct Case {
    const char* text;
    uint32_t counted;
    const char* written;  // every byte written, counted or not
  };
  const Case cases[] = {
      {"", 0, ""},           {"deadBEEF", 4, "deadbeef"},
      {"0aF", 1, "0af0"},                     // the last digit is paired with the NUL: F0 | D0
      {"9909", 2, "9909"},   {"1", 0, "d0"},  // 10 | D0
      {"G:", 1, "03"},                        // (71 - 55) * 16 leaves the byte; 58 - 55
      {"0/", 1, "ff"},                        // 0 | (47 - 48)
      {"\xFF\x80", 1, "c9"},                  // (255 - 55) << 4 is 80; 128 - 55 is 49
  };
  for (const auto& c : cases) {
    auto text = test::exact_text(c.text);
    Bytes out(text.size() / 2);
    EXPECT_EQ(GetParam().to_bytes(text.data(), out.data()), c.counted) << c.text;
    EXPECT_EQ(test::hex(out), c.written) << c.text;
    auto* in_place = reinterpret_cast<uint8_t*>(text.data());
    EXPECT_EQ(GetParam().to_bytes(text.data(), in_place), c.counted) << c.text;
    EXPECT_EQ(test::hex(in_place, out.size()), c.written) << c.text;
  }
}

TEST_P(Hex, WritesUpperCaseWithoutNul) {
  const Bytes bytes = {0x00, 0x0A, 0xFF};
  std::string room = "########";
  EXPECT_EQ(GetParam().to_text(bytes.data(), 3, room.data()), 6U);
  EXPECT_EQ(GetParam().to_text(bytes.data(), 0, room.data()), 0U);
  EXPECT_EQ(room, "000AFF##");
}

TEST_P(Hex, NullGivesNothing) {
  uint8_t byte = 7;
  char character = '#';
  EXPECT_EQ(GetParam().to_bytes(nullptr, &byte), 0U);
  EXPECT_EQ(GetParam().to_bytes("00", nullptr), 0U);
  EXPECT_EQ(GetParam().to_text(nullptr, 1, &character), 0U);
  EXPECT_EQ(GetParam().to_text(&byte, 1, nullptr), 0U);
}

}  // namespace
