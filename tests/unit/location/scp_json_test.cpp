#include "location/scp_json.h"

#include <gtest/gtest.h>

#include "support/bytes.hpp"

namespace {

TEST(ScpJson, Values) {
  const struct {
    const char* text;
    const char* key;
    const char* value;  // null = refused
  } cases[] = {
      {R"({"a":"v"})", "a", "v"},
      {R"({"a":""})", "a", ""},
      {R"({"a":"x\"y"})", "a", R"(x\)"},
      {R"("a":"v")", "a", "v"},  // no more than the key is looked at
      {R"({"a":"v","a":"w"})", "a", "v"},
      {R"({"a": "v"})", "a", nullptr},
      {R"({"a" :"v"})", "a", nullptr},
      {R"({"a":{"b":"c"}})", "a", nullptr},
      {R"({"a":1})", "a", nullptr},
      {R"({"b":"a","a":"v"})", "a", nullptr},  // the key's letters stand elsewhere first
      {R"({"ab":"x","a":"v"})", "a", nullptr},
      {R"({"ba":"x","a":"v"})", "a", nullptr},
      {R"({"a":"v)", "a", nullptr},
      {R"({"a":")", "a", nullptr},
      {R"({"a":)", "a", nullptr},
      {R"({"a)", "a", nullptr},
      {R"(a":"v")", "a", nullptr},
      {"", "a", nullptr},
      {R"({"a":"v"})", "", nullptr},
      {R"({"a":"v"})", "b", nullptr},
      {nullptr, "a", nullptr},
      {"x", nullptr, nullptr},
  };
  for (const auto& c : cases) {
    const std::vector<char> text = test::exact_text(c.text == nullptr ? "" : c.text);
    std::vector<char> out(text.size(), '~');
    EXPECT_EQ(scp_json_get_value(c.text == nullptr ? nullptr : text.data(), c.key, out.data()),
              c.value == nullptr ? -1 : 0)
        << (c.text == nullptr ? "null" : c.text);
    EXPECT_STREQ(out.data(), c.value == nullptr ? "" : c.value);
  }
  EXPECT_EQ(scp_json_get_value("{}", "a", nullptr), -1);
}

TEST(ScpJson, ChecksAndEquality) {
  const struct {
    const char* text;
    int32_t result;
  } cases[] = {{"{}", 0}, {" {}", -1}, {"{} ", -1}, {"{", -1},
               {"}", -1}, {"", -1},    {"}{", -1},  {nullptr, -1}};
  for (const auto& c : cases) EXPECT_EQ(scp_json_check(c.text), c.result);
  EXPECT_EQ(scp_json_check_value("ab", "ab"), 0);
  for (const char* other : {"", "a", "abc", "aB", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(scp_json_check_value("ab", other), -1);
    EXPECT_EQ(scp_json_check_value(other, "ab"), -1);
  }
}

}  // namespace
