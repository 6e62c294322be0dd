#include "util/hex.h"

#include <gtest/gtest.h>

#include "support/bytes.hpp"

namespace {

TEST(Hex, ReadsPairs) {
  const struct {
    const char* text;
    uint32_t counted;
    const char* written;  // every byte written, counted or not
  } cases[] = {
      {"", 0, ""},           {"deadBEEF", 4, "deadbeef"},
      {"0aF", 1, "0af0"},                     // the last digit is paired with the NUL: F0 | D0
      {"9909", 2, "9909"},   {"1", 0, "d0"},  // 10 | D0
      {"G:", 1, "03"},                        // (71 - 55) * 16 leaves the byte; 58 - 55
      {"0/", 1, "ff"},                        // 0 | (47 - 48)
      {"\xFF\x80", 1, "c9"},                  // (255 - 55) << 4 is 80; 128 - 55 is 49
  };
  for (const auto& c : cases) {
    for (const auto to_bytes : {hexStringToBytes, scpHexStringToBytes}) {
      auto text = test::exact_text(c.text);
      auto* in_place = reinterpret_cast<uint8_t*>(text.data());
      EXPECT_EQ(to_bytes(text.data(), in_place), c.counted) << c.text;
      EXPECT_EQ(test::hex(in_place, text.size() / 2), c.written) << c.text;
    }
  }
}

TEST(Hex, WritesUpperCaseWithoutNul) {
  const uint8_t bytes[] = {0x00, 0x0A, 0xFF};
  for (const auto to_text : {bytesToHexString, scpBytesToHexString}) {
    std::string room = "########";
    EXPECT_EQ(to_text(bytes, 3, room.data()), 6U);
    EXPECT_EQ(to_text(bytes, 0, room.data()), 0U);
    EXPECT_EQ(room, "000AFF##");
    EXPECT_EQ(to_text(nullptr, 1, room.data()), 0U);
    EXPECT_EQ(to_text(bytes, 1, nullptr), 0U);
  }
  EXPECT_EQ(hexStringToBytes(nullptr, nullptr), 0U);
  EXPECT_EQ(hexStringToBytes("00", nullptr), 0U);
}

}  // namespace
