#include "util/hex.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "support/bytes.hpp"

namespace {

using test::Bytes;
using test::exact_text;

struct HexSet {
  const char* name;
  uint32_t (*to_bytes)(const char*, uint8_t*);
  uint32_t (*to_text)(const uint8_t*, uint32_t, char*);
};
const HexSet kSets[] = {{"protocol", hexStringToBytes, bytesToHexString},
                        {"location", scpHexStringToBytes, scpBytesToHexString}};

TEST(Hex, ReadsPairs) {
  struct Case {
    const char* text;
    uint32_t counted;
    const char* written;  // every byte written, counted or not
  };
  const Case cases[] = {
      {"", 0, ""},           {"0aF0", 2, "0af0"}, {"deadBEEF", 4, "deadbeef"},
      {"0aF", 1, "0af0"},     // the last digit is paired with the NUL: F0 | D0
      {"1", 0, "d0"},         // 10 | D0
      {"G:", 1, "03"},        // (71 - 55) * 16 leaves the byte; 58 - 55
      {"0/", 1, "ff"},        // 0 | (47 - 48)
      {"\xFF\x80", 1, "c9"},  // (255 - 55) << 4 is 80; 128 - 55 is 49
  };
  for (const auto& set : kSets) {
    for (const auto& c : cases) {
      const auto text = exact_text(c.text);
      Bytes out(text.size() / 2);
      EXPECT_EQ(set.to_bytes(text.data(), out.data()), c.counted) << set.name << " " << c.text;
      EXPECT_EQ(test::hex(out), c.written) << set.name << " " << c.text;
    }
  }
}

TEST(Hex, WritesUpperCaseWithoutNul) {
  for (const auto& set : kSets) {
    const Bytes bytes = {0x00, 0x0A, 0xFF};
    std::string room = "########";
    EXPECT_EQ(set.to_text(bytes.data(), 3, room.data()), 6U);
    EXPECT_EQ(room, "000AFF##") << set.name;
    EXPECT_EQ(set.to_text(bytes.data(), 0, room.data()), 0U);
    EXPECT_EQ(room, "000AFF##") << set.name;
  }
}

TEST(Hex, TextMayBeDecodedInPlace) {
  std::mt19937 generator(1);
  for (size_t n = 0; n < 100; ++n) {
    const Bytes bytes = test::random_bytes(generator, n);
    auto text = exact_text(test::hex(bytes));
    EXPECT_EQ(hexStringToBytes(text.data(), reinterpret_cast<uint8_t*>(text.data())), n);
    EXPECT_EQ(test::hex(reinterpret_cast<const uint8_t*>(text.data()), n), test::hex(bytes));
  }
}

TEST(Hex, NullGivesNothing) {
  uint8_t byte = 7;
  char character = '#';
  for (const auto& set : kSets) {
    EXPECT_EQ(set.to_bytes(nullptr, &byte), 0U);
    EXPECT_EQ(set.to_bytes("00", nullptr), 0U);
    EXPECT_EQ(set.to_text(nullptr, 1, &character), 0U);
    EXPECT_EQ(set.to_text(&byte, 1, nullptr), 0U);
  }
  EXPECT_EQ(byte, 7);
  EXPECT_EQ(character, '#');
}

}  // namespace
