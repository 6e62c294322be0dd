#include "util/diagnostics.h"

#include <gtest/gtest.h>

#include <string>

#include "support/bytes.hpp"

namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

TEST(Diagnostics, PrintsAtMost1023Characters) {
  for (const size_t len : {size_t{0}, size_t{5}, size_t{1021}, size_t{1022}, size_t{5000}}) {
    const std::string text(len, 'x');
    CaptureStdout();
    tq_printf("%d%s!", 7, text.c_str());
    EXPECT_EQ(GetCapturedStdout(), ("7" + text + "!").substr(0, 1023));
  }
}

TEST(Diagnostics, DumpsBytesOfAnyLength) {
  for (const size_t len : {size_t{0}, size_t{1}, size_t{511}, size_t{512}, size_t{513}, size_t{7000}}) {
    test::Bytes bytes(len);
    std::string expected = "Send SR: ";
    for (size_t i = 0; i < len; ++i) {
      bytes[i] = static_cast<uint8_t>(i * 37);
      for (const int nibble : {bytes[i] >> 4, bytes[i] & 0x0F}) expected += "0123456789ABCDEF"[nibble];
    }
    expected += "\n";
    for (const auto print : {print_hex, scp_print_hex}) {
      CaptureStdout();
      print("Send SR: ", bytes.data(), static_cast<uint32_t>(len));
      EXPECT_EQ(GetCapturedStdout(), expected) << len;
    }
  }
}

TEST(Diagnostics, LongAndMissingLabels) {
  const std::string label(2000, 'L');
  const uint8_t byte = 0xAB;
  CaptureStdout();
  print_hex(label.c_str(), &byte, 1);
  scp_print_hex(label.c_str(), &byte, 1);
  print_hex("%d%n", &byte, 1);  // a label is no format
  print_hex(nullptr, &byte, 1);
  scp_print_hex(nullptr, nullptr, 1);
  EXPECT_EQ(GetCapturedStdout(),
            label.substr(0, 1023) + "AB\n" + label + "AB\n" + "%d%nAB\n" + "AB\n" + "\n");
}

}  // namespace
