#include "protocol/data_decode.h"

#include <gtest/gtest.h>

#include "protocol/server_peer.hpp"

namespace {

using namespace test;

struct Files {
  Bytes management = Bytes(32, 0x11);
  Bytes file6011 = Bytes(214, 0x22);
  Bytes file6012 = Bytes(256, 0x33);
  Bytes file6013 = Bytes(1024, 0x44);
};

constexpr TqTiming kTiming{
    .cardTime = 0x9ABC1234, .fileTime = 0x8765FEDC, .exchangeCount = 3, .startTime = 1, .endTime = 2};

std::string build(const Files& f, uint32_t command, uint32_t capacity, const TqTiming* timing = &kTiming) {
  Bytes out(capacity);
  const int32_t rc =
      input_data_decode_group(f.management.data(), len(f.management), f.file6011.data(), len(f.file6011),
                              f.file6012.data(), len(f.file6012), f.file6013.data(), len(f.file6013), command,
                              kWorkKey.data(), out.data(), capacity, timing);
  return rc < 0 ? std::to_string(rc) : hex(out.data(), static_cast<size_t>(rc));
}

TEST(DataDecode, RequestsByteForByte) {
  const Files f;
  const Bytes first = f.management + from_hex("6011") + f.file6011 + from_hex("6012") + f.file6012;
  const Bytes reserved(64, 0xFF);
  const Bytes timing = from_hex("1234FEDC");
  const struct {
    uint32_t command;
    Bytes plain;
    size_t frame_length;
  } cases[] = {{0x6002, secret_frame(0x6002, first), 539},
               {0x6102, secret_frame(0x6102, first + reserved) + timing, 603},
               {0x6113, secret_frame(0x6113, f.file6013 + reserved) + timing, 1115}};
  for (const auto& c : cases) {
    const Bytes expected = request_frame(c.command, seal(c.plain));
    EXPECT_EQ(expected.size(), c.frame_length);
    EXPECT_EQ(build(f, c.command, 1128), hex(expected));
    EXPECT_EQ(build(f, c.command, len(expected)), hex(expected));
    EXPECT_EQ(build(f, c.command, len(expected) - 1), "-1");
    EXPECT_EQ(build(f, c.command, 1128, nullptr), c.command == 0x6002 ? hex(expected) : "-1");
  }
  EXPECT_EQ(build(f, 0x6003, 1128), "-1");
}

TEST(DataDecode, FilesHaveTheirExactSizes) {
  for (Bytes Files::*file : {&Files::management, &Files::file6011, &Files::file6012, &Files::file6013}) {
    const bool is_6013 = file == &Files::file6013;
    for (const int change : {-1, 1, -100000}) {
      Files f;
      Bytes& bytes = f.*file;
      bytes.resize(change == -100000 ? 0 : bytes.size() + static_cast<size_t>(change));
      for (const uint32_t command : {0x6002U, 0x6102U, 0x6113U}) {
        const bool concerned = (command == 0x6113) == is_6013;
        EXPECT_EQ(build(f, command, 1128) == "-1", concerned) << command;
      }
    }
  }
}

TEST(DataDecode, Answers) {
  const Bytes data(45, 0x5A);
  const struct {
    const char* name;
    uint32_t command;
    uint8_t type;
    Bytes payload;
    std::string result;
  } cases[] = {
      {"6002", 0x6002, 0xAA, seal(secret_frame(0x6002, data)), hex(data)},
      {"6002 flagged", 0x6002, 0x99, Bytes{0} + secret_frame(0x6002, data), "-1"},
      {"6002 of another command", 0x6002, 0xAA, seal(secret_frame(0x6102, data)), "-1"},
      {"6102 encrypted", 0x6102, 0x99, Bytes{1} + seal(data), "01" + hex(data)},
      {"6102 plain", 0x6102, 0x99, Bytes{0} + data, "00" + hex(data)},
      {"6113 plain", 0x6113, 0x99, Bytes{2} + data, "02" + hex(data)},
      {"6102 unflagged type", 0x6102, 0xAA, seal(data), "-1"},
  };
  for (const auto& c : cases) {
    const Bytes frame = response_frame({.command = c.command, .payload = c.payload, .type = c.type});
    const auto open = [&](size_t n, uint32_t capacity, Bytes& out) {
      const Bytes exact = exact_copy(frame, n);
      out.assign(capacity, 0xEE);
      return output_data_decode_analysis(exact.data(), len(exact), c.command, kWorkKey.data(), out.data(),
                                         capacity);
    };
    const bool good = c.result != "-1";
    const auto length = static_cast<int32_t>(good ? c.result.size() / 2 : 0);
    Bytes out;
    EXPECT_EQ(open(frame.size(), 100, out), good ? length : -1) << c.name;
    if (!good) continue;
    EXPECT_EQ(hex(out.data(), static_cast<size_t>(length)), c.result) << c.name;
    if (c.command != 0x6002) {  // the room is cleared first, and stays so when the data do not fit
      EXPECT_EQ(hex(out.data() + length, 100 - c.result.size() / 2), std::string(200 - c.result.size(), '0'));
      EXPECT_EQ(open(frame.size(), static_cast<uint32_t>(length) - 1, out), length);
      EXPECT_EQ(out, Bytes(out.size(), 0));
    }
    for (size_t n = 0; n < frame.size(); ++n) EXPECT_EQ(open(n, 100, out), -1) << c.name << n;
  }
}

}  // namespace
