#include "util/diagnostics.h"

#include <gtest/gtest.h>

#include "support/bytes.hpp"

namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

TEST(Diagnostics, PrintsAtMost1023Characters) {
  for (const size_t len : {0, 1021, 1022, 5000}) {
    const std::string text(len, 'x');
    CaptureStdout();
    tq_printf("%d%s!", 7, text.c_str());
    EXPECT_EQ(GetCapturedStdout(), ("7" + text + "!").substr(0, 1023));
  }
}

TEST(Diagnostics, DumpsBytesOfAnyLengthWithAnyLabel) {
  for (const size_t len : {0, 1, 512, 513, 7000}) {
    const test::Bytes bytes(len, 0xA7);
    std::string digits;
    for (size_t i = 0; i < len; ++i) digits += "A7";
    CaptureStdout();
    print_hex("%d%n", bytes.data(), static_cast<uint32_t>(len));  // a label is no format
    scp_print_hex(nullptr, bytes.data(), static_cast<uint32_t>(len));
    EXPECT_EQ(GetCapturedStdout(), "%d%n" + digits + "\n" + digits + "\n");
  }
  const std::string label(2000, 'L');
  CaptureStdout();
  print_hex(label.c_str(), nullptr, 1);
  scp_print_hex(label.c_str(), nullptr, 1);
  print_hex(nullptr, nullptr, 0);
  EXPECT_EQ(GetCapturedStdout(), label.substr(0, 1023) + "\n" + label + "\n\n");
}

}  // namespace
