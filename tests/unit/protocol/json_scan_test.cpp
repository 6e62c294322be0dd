#include "protocol/json_scan.h"

#include <gtest/gtest.h>

#include "support/bytes.hpp"

namespace {

TEST(JsonScan, Values) {
  const struct {
    const char* text;
    const char* key;
    const char* value;  // null = refused
  } cases[] = {
      {R"({"a":"v"})", "a", "v"},
      {R"({"a":""})", "a", ""},
      {R"({"a":{"b":{"c":1}}})", "a", R"({"b":{"c":1})"},
      {R"({"a":"x\"y"})", "a", R"(x\)"},
      {R"({"a": "v"})", "a", nullptr},
      {R"({"a" :"v"})", "a", nullptr},
      {R"({"a":1})", "a", nullptr},
      {R"({"b":"a","a":"v"})", "a", nullptr},  // the key's letters stand elsewhere first
      {R"({"ab":"x","a":"v"})", "a", nullptr},
      {R"({"ba":"x","a":"v"})", "a", nullptr},
      {R"({"a":"v)", "a", nullptr},
      {R"({"a":{"b":1)", "a", nullptr},
      {R"({"a":)", "a", nullptr},
      {R"({"a)", "a", nullptr},
      {R"(a":"v")", "a", nullptr},
      {R"({"a":"v"})", "", nullptr},
      {R"({"a":"v"})", "ab", nullptr},
      {nullptr, "a", nullptr},
      {"x", nullptr, nullptr},
  };
  for (const auto& c : cases) {
    const auto text = test::exact_text(c.text == nullptr ? "" : c.text);
    std::vector<char> out(text.size(), '#');
    EXPECT_EQ(json_get_value(c.text == nullptr ? nullptr : text.data(), c.key, out.data()),
              c.value == nullptr ? -1 : 0);
    EXPECT_STREQ(out.data(), c.value == nullptr ? "" : c.value);
    const bool braced = c.value != nullptr && *c.value == '{';
    EXPECT_EQ(scp_json_get_value(c.text == nullptr ? nullptr : text.data(), c.key, out.data()),
              c.value == nullptr || braced ? -1 : 0);
    EXPECT_STREQ(out.data(), c.value == nullptr || braced ? "" : c.value);
  }
  EXPECT_EQ(json_get_value("{}", "a", nullptr), -1);
}

TEST(JsonScan, ChecksAndEquality) {
  for (const auto check : {json_check, scp_json_check}) {
    EXPECT_EQ(check("{}"), 0);
    for (const char* bad : {" {}", "{} ", "{", "}", "", static_cast<const char*>(nullptr)})
      EXPECT_EQ(check(bad), -1);
  }
  for (const auto check_value : {json_check_value, scp_json_check_value}) {
    EXPECT_EQ(check_value("ab", "ab"), 0);
    for (const char* other : {"", "a", "abc", "aB", static_cast<const char*>(nullptr)}) {
      EXPECT_EQ(check_value("ab", other), -1);
      EXPECT_EQ(check_value(other, "ab"), -1);
    }
  }
}

}  // namespace
