#include "util/byte_text.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>
#include <random>
#include <string>

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
  EXPECT_STREQ(text, "text");
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
}

TEST(ByteText, CopyAndFill) {
  char text[] = "abcdef";
  EXPECT_EQ(tq_memcpy(text, "XY", 2), text);
  EXPECT_EQ(tq_memset(text + 4, 'z', 1), text + 4);
  EXPECT_EQ(tq_memcpy(text, "Q", 0), text);
  EXPECT_EQ(tq_memset(text, 'q', 0), text);
  EXPECT_STREQ(text, "XYcdzf");
}

TEST(ByteText, Differences) {
  EXPECT_EQ(tq_memcmp("ab\x80", "ab\x01", 3), 0x7F) << "bytes are unsigned";
  EXPECT_EQ(tq_memcmp("ab\x01", "ab\x80", 2), 0);
  EXPECT_EQ(tq_memcmp("a\0b", "a\0d", 3), -2);
  EXPECT_EQ(tq_memcmp("a", "b", 0), 0);
  EXPECT_EQ(tq_strcmp("abc", "abc"), 0);
  EXPECT_EQ(tq_strcmp("abc", "ab"), 'c');
  EXPECT_EQ(tq_strcmp("ab", "abc"), -'c');
  EXPECT_EQ(tq_strcmp("\xFF", "a"), 0xFF - 'a');
  EXPECT_EQ(tq_strcmp("", ""), 0);
}

TEST(ByteText, Search) {
  const char* text = "abcabd";
  EXPECT_EQ(tq_strstr(text, "ab"), text);
  EXPECT_EQ(tq_strstr(text, "abd"), text + 3);
  for (const char* needle : {"x", "", "abcabde"}) EXPECT_STREQ(tq_strstr(text, needle), "") << needle;
  EXPECT_STREQ(tq_strstr("", "a"), "");
  EXPECT_STREQ(tq_strstr("", ""), "");
}

TEST(ByteText, BoundedCopyAlwaysEndsWithNul) {
  struct Case {
    const char* source;
    int32_t n;
    const char* expected;
  };
  const Case cases[] = {{"abc", 2, "ab"}, {"abc", 3, "abc"}, {"abc", 9, "abc"},
                        {"abc", 0, ""},   {"abc", -5, ""},   {"", 4, ""}};
  for (const auto& c : cases) {
    const auto source = exact_text(c.source);
    std::string room(static_cast<size_t>(std::max(c.n, 0)) + 2, '#');
    EXPECT_EQ(tq_strncpy(room.data(), source.data(), c.n), room.data());
    EXPECT_STREQ(room.c_str(), c.expected) << c.source << " " << c.n;
    EXPECT_EQ(room.back(), '#');
  }
}

TEST(ByteText, UpperCase) {
  for (int32_t c = -300; c < 300; ++c) {
    EXPECT_EQ(my_toupper(c), c >= 'a' && c <= 'z' ? c - 32 : c);
  }
}

TEST(ByteText, ReadsNumbers) {
  struct Case {
    const char* text;
    int32_t value;
  };
  const Case cases[] = {{"", 0},
                        {"0", 0},
                        {"42", 42},
                        {"  -12x", -12},
                        {"+7", 7},
                        {"\t5", 0},
                        {"--5", 0},
                        {"- 5", 0},
                        {"x5", 0},
                        {"2147483647", std::numeric_limits<int32_t>::max()},
                        {"-2147483648", std::numeric_limits<int32_t>::min()},
                        {"2147483648", std::numeric_limits<int32_t>::min()},
                        {"4294967301", 5},
                        {"-4294967301", -5}};
  for (const auto& c : cases) EXPECT_EQ(my_atoi(exact_text(c.text).data()), c.value) << c.text;
}

TEST(ByteText, TrimsInPlace) {
  struct Case {
    const char* text;
    const char* trimmed;
    ptrdiff_t offset;
  };
  const Case cases[] = {{"", "", 0},     {"a", "a", 0},   {"\t a b \t", "a b", 2},
                        {"  ", "", 2},   {"a\t", "a", 0}, {"\n a \n", "\n a \n", 0},
                        {" \ta", "a", 2}};
  for (const auto& c : cases) {
    auto text = exact_text(c.text);
    char* const trimmed = my_trim(text.data());
    EXPECT_STREQ(trimmed, c.trimmed) << c.text;
    EXPECT_EQ(trimmed - text.data(), c.offset) << c.text;
  }
}

TEST(ByteText, WritesNumbers) {
  struct Case {
    int64_t value;
    int32_t radix;
    const char* text;
  };
  const Case cases[] = {{1, 10, "1"},
                        {-255, 16, "-FF"},
                        {35, 36, "Z"},
                        {std::numeric_limits<int64_t>::max(), 10, "9223372036854775807"},
                        {std::numeric_limits<int64_t>::min(), 10, "-9223372036854775808"},
                        {std::numeric_limits<int64_t>::min(), 2,
                         "-1000000000000000000000000000000000000000000000000000000000000000"}};
  for (const auto& c : cases) {
    auto room = exact_text(std::string(std::string(c.text).size(), '#'));
    EXPECT_EQ(my_itoa(c.value, room.data(), c.radix), room.data());
    EXPECT_STREQ(room.data(), c.text);
  }
}

TEST(ByteText, ZeroIsWrittenWithoutNulAndABadRadixNotAtAll) {
  std::string room = "###";
  my_itoa(0, room.data(), 10);
  EXPECT_EQ(room, "0##");
  for (const int32_t radix : {1, 0, -10, 37}) my_itoa(77, room.data(), radix);
  EXPECT_EQ(room, "0##");
}

TEST(ByteText, NumbersInEveryRadixReadBack) {
  std::mt19937_64 generator(7);
  for (int32_t radix = 2; radix <= 36; ++radix) {
    for (int i = 0; i < 50; ++i) {
      const auto value = static_cast<int64_t>(generator() >> (generator() % 63));
      char room[67] = "";
      my_itoa(value, room, radix);
      EXPECT_EQ(std::strtoll(room, nullptr, radix), value) << room << " in radix " << radix;
    }
  }
}

}  // namespace
