#include "passport/mrz_checks.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "support/bytes.hpp"

namespace {

using Check = int32_t (*)(const char*, char*);

struct Case {
  const char* input;
  const char* field;  // what is written, in front of the zeros that were there
};

void expect_field(Check check, size_t room, const char* input, int32_t result, const char* field) {
  std::vector<char> out(room);
  EXPECT_EQ(check(test::exact_text(input).data(), out.data()), result) << input;
  EXPECT_EQ(std::string(out.data(), room), field + std::string(room - std::strlen(field), '\0')) << input;
}

TEST(MrzChecks, DocumentNumber) {
  const Case good[] = {{"  ab12  ", "AB12<<<<<"},    {"\t 7\t", "7<<<<<<<<"},
                       {"L898902C", "L898902C<"},    {"azAZ09xyz", "AZAZ09XYZ"},
                       {"d231458907", "D231458907"}, {" 12345678901234567890 ", "12345678901234567890"}};
  for (const auto& c : good) expect_field(Passport_No_check, 24, c.input, 0, c.field);
  for (const char* malformed : {"123456789012345678901", "L898902C<", "AB 12", "AB12\n", "\rAB12", "@", "[",
                                "`", "{", "/", ":", "1234\xC1", "12345678\xE4\xB8\xAD"})
    expect_field(Passport_No_check, 24, malformed, -13009, "");
}

TEST(MrzChecks, Date) {
  const Case good[] = {
      {"900101 ", "900101"}, {" \t691231", "691231"}, {"991399", "991399"}, {"000000", "000000"}};
  for (const auto& c : good) expect_field(Date_of_birth_or_expiry_check, 8, c.input, 0, c.field);
  for (const char* malformed :
       {"9001O1", "90010", "9001011", "19900101", "90 101", "90010/", "90010:", "900101\n"})
    expect_field(Date_of_birth_or_expiry_check, 8, malformed, -13009, "");
}

TEST(MrzChecks, MissingValues) {
  for (const Check check : {Passport_No_check, Date_of_birth_or_expiry_check}) {
    for (const char* blank : {"", " ", "\t\t", " \t \t"}) expect_field(check, 24, blank, -13008, "");
    char out[24] = "untouched";
    EXPECT_EQ(check(nullptr, out), -13008);
    EXPECT_STREQ(out, "untouched");
    EXPECT_EQ(check("900101", nullptr), -13008);
  }
}

}  // namespace
