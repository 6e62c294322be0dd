// Edges of the exported helpers that no decoder's inputs come to: null pointers, signs, rooms, what the
// encoders write.
#include <gtest/gtest.h>

#include <numeric>

#include "protocol/json_scan.h"
#include "support/bytes.hpp"
#include "util/base64.h"
#include "util/block_codec.h"
#include "util/block_codec.hpp"
#include "util/byte_text.h"
#include "util/hex.h"

namespace {

using namespace test;

TEST(ExportedHelpers, NullPointersAreHarmless) {
  char text[] = "text";
  auto* const bytes = reinterpret_cast<uint8_t*>(text);
  EXPECT_EQ(tq_memcpy(nullptr, text, 4), nullptr);
  EXPECT_EQ(tq_memcpy(text, nullptr, 4), text);
  EXPECT_EQ(tq_memset(nullptr, 1, 4), nullptr);
  EXPECT_EQ(tq_strncpy(nullptr, text, 4), nullptr);
  EXPECT_EQ(tq_strncpy(text, nullptr, 4), text);
  EXPECT_EQ(my_itoa(5, nullptr, 10), nullptr);
  EXPECT_EQ(my_trim(nullptr), nullptr);
  EXPECT_EQ(tq_strlen(nullptr) + tq_strlen(""), 0U);
  EXPECT_EQ(my_atoi(nullptr), 0);
  for (const char* other : {static_cast<const char*>(nullptr), static_cast<const char*>(text)}) {
    for (const int32_t rc : {tq_memcmp(nullptr, other, 0), tq_memcmp(other, nullptr, 0),
                             tq_strcmp(nullptr, other), tq_strcmp(other, nullptr)})
      EXPECT_EQ(rc, -1);
    EXPECT_STREQ(tq_strstr(nullptr, other), "");
    EXPECT_STREQ(tq_strstr(other, nullptr), "");
  }
  for (const uint32_t none :
       {hexStringToBytes(nullptr, bytes), hexStringToBytes("00", nullptr), bytesToHexString(nullptr, 1, text),
        bytesToHexString(bytes, 1, nullptr), bytesToHexString(bytes, 0, text)})
    EXPECT_EQ(none, 0U);
  for (const int32_t none : {BASE64encode(nullptr, 1, text, 8), BASE64encode(bytes, 1, nullptr, 8),
                             BASE64encode(bytes, -1, text, 4), BASE64decode(nullptr, 4, bytes, 1),
                             BASE64decode("QQ==", 4, nullptr, 1), BASE64decode("QUJD", -4, bytes, 3),
                             BASE64decode("QUJD", 4, bytes, -1)})
    EXPECT_EQ(none, 0);
  EXPECT_STREQ(text, "text");
  const uint8_t key[8] = {};
  for (const auto code : {tq1_encode, tq1_decode}) {
    EXPECT_EQ(code(nullptr, 8, key, bytes), -1);
    EXPECT_EQ(code(bytes, 8, nullptr, bytes), -1);
    EXPECT_EQ(code(bytes, 8, key, nullptr), -1);
  }
  for (const uint32_t n : {0U, 0xFFFFFFF8U, 0x80000000U})
    EXPECT_EQ(tq1_decode(bytes, n, key, bytes), -1) << n;
  for (const uint32_t n : {0x7FFFFFF8U, 0x80000000U, 0xFFFFFFFFU})
    EXPECT_EQ(tq1_encode(bytes, n, key, bytes), -1) << n;
  EXPECT_EQ(json_get_value("{}", "a", nullptr), -1);
  for (const int32_t refused :
       {json_get_value(nullptr, "a", text), json_get_value("{}", nullptr, text), json_check(nullptr),
        json_check_value(nullptr, "a"), json_check_value("a", nullptr)})
    EXPECT_EQ(refused, -1);
  EXPECT_EQ(std::string(text, 5), std::string("\0ext", 5)) << "an empty value, and nothing else";
}

TEST(ExportedHelpers, MemoryAndTexts) {
  EXPECT_EQ(tq_memcmp("ab\x80", "ab\x01", 3), 0x7F);
  EXPECT_EQ(tq_memcmp("ab\x01", "ab\x80", 2), 0);
  EXPECT_EQ(tq_memcmp("a\0b", "a\0d", 3), -2);
  EXPECT_EQ(tq_strcmp("ab", "ab"), 0);
  EXPECT_EQ(tq_strcmp("ab", "abc"), -'c');
  EXPECT_EQ(tq_strcmp("\xFF", "a"), 0xFF - 'a');
  const char* const text = "abcabd";
  EXPECT_EQ(tq_strstr(text, "ab"), text);
  EXPECT_EQ(tq_strstr(text, "abd"), text + 3);
  for (const char* needle : {"x", "", "abcabde"}) EXPECT_STREQ(tq_strstr(text, needle), "") << needle;
  for (const auto& [n, expected] : {std::pair(2, "ab"), {3, "abc"}, {9, "abc"}, {0, ""}, {-5, ""}}) {
    std::string room(static_cast<size_t>(std::max(n, 0)) + 2, '#');
    EXPECT_EQ(tq_strncpy(room.data(), exact_text("abc").data(), n), room.data());
    EXPECT_STREQ(room.c_str(), expected) << n;
    EXPECT_EQ(room.back(), '#') << n;
  }
  char copy[] = "abcdef";
  EXPECT_EQ(tq_memcpy(copy, "XY", 2), copy);
  EXPECT_EQ(tq_memset(copy + 4, 'z', 1), copy + 4);
  EXPECT_STREQ(copy, "XYcdzf");
  for (int32_t c = -300; c < 300; ++c) EXPECT_EQ(my_toupper(c), c >= 'a' && c <= 'z' ? c - 32 : c);
}

TEST(ExportedHelpers, NumbersInEveryRadix) {
  std::string room = "###";
  my_itoa(0, room.data(), 10);
  for (const int32_t radix : {1, 0, -10, 37}) my_itoa(77, room.data(), radix);
  EXPECT_EQ(room, "0##") << "zero without a NUL, and nothing in a radix that does not exist";
  std::mt19937_64 generator(7);
  for (int32_t radix = 2; radix <= 36; ++radix) {
    for (const int64_t value : {static_cast<int64_t>(generator()), INT64_MIN, int64_t{-1}}) {
      char digits[67] = "";
      EXPECT_EQ(std::strtoll(my_itoa(value, digits, radix), nullptr, radix), value)
          << digits << " in " << radix;
      EXPECT_EQ(std::string(digits).find_first_of("abcdefghijklmnopqrstuvwxyz"), std::string::npos);
    }
  }
}

// The bytes 10 11 12 ..., worked out apart from this code, from the description of the encoding.
TEST(ExportedHelpers, BlockEncodingInPlaceAndAtCompileTime) {
  constexpr std::array<uint8_t, 8> key = {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF};
  const std::pair<size_t, const char*> vectors[] = {
      {0, "092b4d6f81a3c5e7"},
      {3, "113257628caec8ea"},
      {8, "092b4d6f81a3c5e7193a5f7c95b6d3f0"},
      {17, "212442608eaccae8393d587b92b1d4f7292c4a6886a4c2e0"},
      {40,
       "092b4d6f81a3c5e7391a7f5cb596f3d01133557799bbddff31127754bd9efbd8290b6d4fa183e5c7391a7f5cb596f3d0"}};
  for (const auto& [n, encoded] : vectors) {
    Bytes room(n);
    std::iota(room.begin(), room.end(), uint8_t{0x10});
    room.resize(from_hex(encoded).size());
    EXPECT_EQ(tq1_encode(room.data(), static_cast<uint32_t>(n), key.data(), room.data()),
              static_cast<int32_t>(room.size()));
    EXPECT_EQ(hex(room), encoded);
  }
  constexpr auto encoded = tq::block_encode(std::array<uint8_t, 3>{0x10, 0x11, 0x12}, key);
  EXPECT_EQ(hex(encoded), vectors[1].second);
}

}  // namespace
