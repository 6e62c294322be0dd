#include "protocol/command_frame.h"

#include <gtest/gtest.h>

#include "protocol/secret_frame.h"
#include "protocol/server_peer.hpp"

namespace {

using namespace test;

struct Parse {
  Bytes frame;
  uint32_t command = 0x5012;
  uint8_t header = 0x70;
  uint8_t type = 0xAA;
  uint32_t capacity = 400;
};

// Result and delivered bytes as text; a refusal leaves the room behind its result alone.
std::string parse(const Parse& p, uint32_t* parameter = nullptr) {
  Bytes out(p.capacity, 0xEE);
  const int32_t rc = output_command_anlysis(p.frame.data(), len(p.frame), p.header, p.command, parameter,
                                            p.type, kWorkKey.data(), out.data(), p.capacity);
  EXPECT_TRUE(rc >= 0 || out == Bytes(p.capacity, 0xEE));
  return text_of(rc, out);
}

TEST(CommandFrame, RequestsByteForByte) {
  const Bytes longest(65524, 0xA5);
  const struct {
    uint32_t command;
    Bytes payload;
    uint8_t header;
    Bytes frame;
  } cases[] = {
      {0x5012, {0x5A}, 0x70, from_hex("70 000C 5012 00 09 2345 AA 5A E3")},
      {0x6113, {}, 0x72, from_hex("72 000B 6113 00 09 2345 AA 9A")},
      {0x7202, {}, 0x70, from_hex("70 0000000D 7202 00 09 2345 AA 9C")},
      {0x5001, {1}, 0x93, from_hex("93 000C 5001 00 01 2345 AA 01 71")},
      {0x5001, longest, 0x70, request_frame(0x5001, longest, 0x70, 0xAA, 0x2345)},
      {0x5001, longest + Bytes(1), 0x70, {}},
  };
  for (const auto& c : cases) {
    expect_built(
        [&](uint8_t* out, uint32_t room) {
          return input_command_group(c.payload.data(), len(c.payload), c.header, c.command, 0x12345, 0xAA,
                                     out, room);
        },
        c.frame);
  }
}

TEST(CommandFrame, DeliversByCommandAndType) {
  const Bytes data = from_hex("0102030405");
  const struct {
    const char* name;
    uint32_t command;
    uint8_t type;
    Bytes payload;
    std::string delivered;
  } cases[] = {
      {"7500 plain", 0x7500, 0xAA, data, hex(data)},
      {"7100 plain", 0x7100, 0xAA, data, hex(data)},
      {"7500 with type 99", 0x7500, 0x99, data, hex(data)},
      {"decrypted", 0x5012, 0xAA, seal(data), hex(data)},
      {"only padding", 0x5012, 0xAA, seal({}), ""},
      {"last byte zero", 0x5012, 0xAA, seal_blocks(Bytes(16, 0)), std::string(32, '0')},
      {"part of a block", 0x5012, 0xAA, seal(data) + data, "-1"},
      {"flag 1", 0x6102, 0x99, Bytes{1} + seal(data), "01" + hex(data)},
      {"flag 0", 0x6102, 0x99, Bytes{0} + data, "00" + hex(data)},
      {"flag 7 alone", 0x6113, 0x99, Bytes{7}, "07"},
      {"flag 1 alone", 0x6113, 0x99, Bytes{1}, "-1"},
      {"long form", 0x7201, 0xAA, seal(data), hex(data)},
      {"long form with a flag", 0x7202, 0x99, Bytes{2} + data, "02" + hex(data)},
      {"padding longer than the data", 0x5012, 0xAA, seal_blocks(Bytes(16, 17)), "-1"},
      {"padding of all", 0x5012, 0xAA, seal_blocks(Bytes(32, 32)), ""},
  };
  for (const auto& c : cases) {
    const Bytes frame =
        response_frame({.command = c.command, .payload = c.payload, .type = c.type, .parameter = 0xFFFE});
    uint32_t parameter = 0;
    EXPECT_EQ(parse({frame, c.command, 0x70, c.type, len(c.payload)}, &parameter), c.delivered) << c.name;
    EXPECT_EQ(parameter, 0xFFFEU) << c.name;
    EXPECT_EQ(parse({frame, c.command, 0x70, c.type, len(c.payload) - 1}), "-1") << c.name;
  }
}

TEST(CommandFrame, StatusDigitsDecideBeforeWhatIsBehindThem) {
  const std::pair<const char*, std::string> cases[] = {{"001301", "-1301"},   {"00A013", "-1"},
                                                       {"12A456", "-12"},     {"0000F5", "-5"},
                                                       {"1F2F3F", "-102030"}, {"E00000", "-1"}};
  for (const auto& [status, code] : cases) {
    for (const uint32_t command : {0x5012U, 0x7201U, 0x7500U, 0x7100U}) {
      Bytes frame =
          response_frame({.command = command, .type = 0, .parameter = 0, .status = from_hex(status)});
      frame.back() ^= 1;
      uint32_t parameter = 0xEEEE;
      EXPECT_EQ(parse({frame, command}, &parameter), code) << status;
      EXPECT_EQ(parameter, 0xEEEEU);
      EXPECT_EQ(parse({frame, command, 0x71}), "-1");
      const bool authenticates = command == 0x7500 || command == 0x7100;
      frame = response_frame({.command = 0xFFFF, .status = from_hex(status), .form = command});
      EXPECT_EQ(parse({frame, command}), authenticates ? code : "-1") << status;
    }
  }
}

TEST(CommandFrame, EveryDamageIsRefused) {
  for (const uint32_t command : {0x5012U, 0x7201U, 0x6102U}) {
    const uint8_t type = command == 0x6102 ? 0x99 : 0xAA;
    const Bytes flag = command == 0x6102 ? Bytes{1} : Bytes{};
    const Bytes frame =
        response_frame({.command = command, .payload = flag + seal(from_hex("0203")), .type = type});
    const std::string delivered = hex(flag) + "0203";
    ASSERT_EQ(parse({frame, command, 0x70, type}), delivered);
    const size_t width = length_width(command);
    const size_t status_at = 3 + width;
    const size_t parameter_at = 6 + width;
    // Flipped bits with a checksum that is right again, so that only the field itself can tell.
    for (size_t bit = 0; bit < (9 + width) * 8; ++bit) {
      Bytes flipped(frame.begin(), frame.end() - 1);
      flipped[bit / 8] ^= static_cast<uint8_t>(0x80 >> bit % 8);
      const std::string result = parse({summed(flipped, 1), command, 0x70, type});
      const bool in_status = bit / 8 >= status_at && bit / 8 < parameter_at;
      const bool in_parameter = bit / 8 == parameter_at || bit / 8 == parameter_at + 1;
      const bool taken = in_parameter && bit != (parameter_at + 1) * 8 + 4;  // a parameter of 8 or more
      EXPECT_EQ(in_status ? result.substr(0, 1) : result, in_status ? "-" : taken ? delivered : "-1") << bit;
    }
    for (size_t n = 0; n < frame.size(); ++n) {
      Bytes cut = exact_copy(frame, n);
      EXPECT_EQ(parse({cut, command, 0x70, type}), "-1") << n;
      if (n <= width || n > 10 + width) continue;
      const Bytes length = be(n, width);  // that fits what is left of the header
      std::copy(length.begin(), length.end(), cut.begin() + 1);
      EXPECT_EQ(parse({cut, command, 0x70, type}), "-1") << n;
    }
    for (int sum = 1; sum < 256; ++sum) {
      Bytes wrong = frame;
      wrong.back() = static_cast<uint8_t>(wrong.back() + sum);
      EXPECT_EQ(parse({wrong, command, 0x70, type}), "-1");
    }
    EXPECT_EQ(parse({frame + Bytes{0}, command, 0x70, type}), "-1");
  }
}

TEST(CommandFrame, FrameAndOutputMayShareABuffer) {
  EXPECT_EQ(check_sum_group(Bytes(1 << 20, 0xFF).data(), 1 << 20), 0xFFU << 20);
  const Bytes data = from_hex("0102030405060708090A0B0C0D0E0F101112");
  for (const Bytes& payload : {Bytes{0} + data, Bytes{1} + seal(data)}) {
    Bytes shared = response_frame({.command = 0x6102, .payload = payload, .type = 0x99});
    EXPECT_EQ(output_command_anlysis(shared.data(), len(shared), 0x70, 0x6102, nullptr, 0x99, kWorkKey.data(),
                                     shared.data(), len(shared)),
              19);
    EXPECT_EQ(hex(shared.data() + 1, 18), hex(data));
  }
}

TEST(SecretFrame, BuildsWhatThePeerReads) {
  for (const uint32_t command : {0x5001U, 0x7202U}) {
    for (const uint32_t n : {0U, 1U, 4U, 5U, 6U, 22U, 500U}) {
      const Bytes data(n, 0xC3);
      Bytes out(n + 28);  // more than it needs, now and then
      const int32_t rc =
          input_secret_command_group(data.data(), n, command, kWorkKey.data(), out.data(), len(out));
      EXPECT_EQ(text_of(rc, out), n == 0 ? "-1" : hex(seal(secret_frame(command, data))));
      EXPECT_EQ(input_secret_command_group(data.data(), n, command, kWorkKey.data(), out.data(), n + 27), -1);
    }
  }
}

TEST(SecretFrame, EveryDamageIsRefused) {
  const Bytes data = from_hex("0102030405060708");
  for (const uint32_t command : {0x5022U, 0x7202U}) {
    const Bytes frame = secret_frame(command, data);
    const auto parse = [&](const uint8_t* bytes, uint32_t length, uint8_t* out, uint32_t room) {
      return output_secret_command_analysis(bytes, length, command, out, room);
    };
    expect_parsed(parse, frame, hex(data), 8);
    expect_parsed(parse, secret_frame(0x5012, data), "-1", 8);
    expect_parsed(parse, secret_frame(command, {}), "-1", 8);
    Bytes out(64);
    EXPECT_EQ(parse(frame.data(), len(frame), out.data(), 7), -1);
    for (size_t bit = 0; bit < frame.size() * 8; ++bit) {
      Bytes flipped = frame;
      flipped[bit / 8] ^= static_cast<uint8_t>(1 << bit % 8);
      out.assign(64, 0);
      EXPECT_EQ(parse(flipped.data(), len(flipped), out.data(), 64), -1) << bit;
    }
    EXPECT_EQ(hex(out.data(), 8), hex(data)) << "the data are there although the end is wrong";
    const Bytes longer = frame + Bytes{0};
    EXPECT_EQ(parse(longer.data(), len(longer), out.data(), 64), -1);
  }
}

}  // namespace
