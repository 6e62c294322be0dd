#include "util/byte_text.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "support/bytes.hpp"

namespace {

using test::exact_text;

TEST(ByteText, NullPointersAreHarmless) {
  char text[] = "text";
  EXPECT_EQ(tq_memcpy(nullptr, text, 4), nullptr);
  EXPECT_EQ(tq_memcpy(text, nullptr, 4), text);
  EXPECT_EQ(tq_memset(nullptr, 1, 4), nullptr);
  EXPECT_EQ(tq_strncpy(nullptr, text, 4), nullptr);
  EXPECT_EQ(tq_strncpy(text, nullptr, 4), text);
  EXPECT_EQ(my_itoa(5, nullptr, 10), nullptr);
  EXPECT_EQ(my_trim(nullptr), nullptr);
  EXPECT_EQ(tq_strlen(nullptr), 0U);
  EXPECT_EQ(my_atoi(nullptr), 0);
  for (const char* other : {static_cast<const char*>(nullptr), static_cast<const char*>(text)}) {
    EXPECT_EQ(tq_memcmp(nullptr, other, 0), -1);
    EXPECT_EQ(tq_memcmp(other, nullptr, 0), -1);
    EXPECT_EQ(tq_strcmp(nullptr, other), -1);
    EXPECT_EQ(tq_strcmp(other, nullptr), -1);
    EXPECT_STREQ(tq_strstr(nullptr, other), "");
    EXPECT_STREQ(tq_strstr(other, nullptr), "");
  }
  EXPECT_STREQ(text, "text");
}

TEST(ByteText, BytesAreComparedUnsigned) {
  EXPECT_EQ(tq_memcmp("ab\x80", "ab\x01", 3), 0x7F);
  EXPECT_EQ(tq_memcmp("ab\x01", "ab\x80", 2), 0);
  EXPECT_EQ(tq_memcmp("a\0b", "a\0d", 3), -2);
  EXPECT_EQ(tq_memcmp("a", "b", 0), 0);
  EXPECT_EQ(tq_strcmp("abc", "abc"), 0);
  EXPECT_EQ(tq_strcmp("ab", "abc"), -'c');
  EXPECT_EQ(tq_strcmp("\xFF", "a"), 0xFF - 'a');
}

TEST(ByteText, SearchNeverGivesNull) {
  const char* text = "abcabd";
  EXPECT_EQ(tq_strstr(text, "ab"), text);
  EXPECT_EQ(tq_strstr(text, "abd"), text + 3);
  for (const char* needle : {"x", "", "abcabde"}) EXPECT_STREQ(tq_strstr(text, needle), "") << needle;
  EXPECT_STREQ(tq_strstr("", ""), "");
}

TEST(ByteText, CopiesWithinBounds) {
  const std::pair<int32_t, const char*> cases[] = {{2, "ab"}, {3, "abc"}, {9, "abc"}, {0, ""}, {-5, ""}};
  for (const auto& [n, expected] : cases) {
    std::string room(static_cast<size_t>(std::max(n, 0)) + 2, '#');
    EXPECT_EQ(tq_strncpy(room.data(), exact_text("abc").data(), n), room.data());
    EXPECT_STREQ(room.c_str(), expected) << n;
    EXPECT_EQ(room.back(), '#') << n;
  }
  char text[] = "abcdef";
  EXPECT_EQ(tq_memcpy(text, "XY", 2), text);
  EXPECT_EQ(tq_memset(text + 4, 'z', 1), text + 4);
  EXPECT_STREQ(text, "XYcdzf");
}

TEST(ByteText, ReadsNumbersAndLetters) {
  for (int32_t c = -300; c < 300; ++c) EXPECT_EQ(my_toupper(c), c >= 'a' && c <= 'z' ? c - 32 : c);
  const std::pair<const char*, int64_t> cases[] = {
      {"", 0},    {"42", 42}, {"  -12x", -12},           {"+7", 7},         {"\t5", 0},
      {"--5", 0}, {"- 5", 0}, {"2147483648", INT32_MIN}, {"4294967301", 5}, {"-4294967301", -5}};
  for (const auto& [text, value] : cases) EXPECT_EQ(my_atoi(exact_text(text).data()), value) << text;
}

TEST(ByteText, TrimsInPlace) {
  const std::pair<const char*, const char*> cases[] = {
      {"", ""}, {"\t a b \t", "a b"}, {"  ", ""}, {"\n a \n", "\n a \n"}, {" \ta", "a"}};
  for (const auto& [untrimmed, trimmed] : cases) {
    auto text = exact_text(untrimmed);
    EXPECT_STREQ(my_trim(text.data()), trimmed);
  }
}

TEST(ByteText, WritesNumbers) {
  auto hex = exact_text("###");
  EXPECT_STREQ(my_itoa(-255, hex.data(), 16), "-FF");
  auto decimal = exact_text(std::string(20, '#'));
  EXPECT_STREQ(my_itoa(INT64_MIN, decimal.data(), 10), "-9223372036854775808");
  auto binary = exact_text(std::string(65, '#'));
  EXPECT_EQ(my_itoa(INT64_MIN, binary.data(), 2), "-1" + std::string(63, '0'));
  std::string room = "###";
  my_itoa(0, room.data(), 10);
  for (const int32_t radix : {1, 0, -10, 37}) my_itoa(77, room.data(), radix);
  EXPECT_EQ(room, "0##") << "zero without a NUL, and nothing in a radix that does not exist";
  std::mt19937_64 generator(7);
  for (int32_t radix = 2; radix <= 36; ++radix) {
    const auto value = static_cast<int64_t>(generator());
    char digits[67] = "";
    EXPECT_EQ(std::strtoll(my_itoa(value, digits, radix), nullptr, radix), value)
        << digits << " in " << radix;
  }
}

}  // namespace
