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
  const Bytes frame = exact_copy(p.frame, p.frame.size());
  Bytes out(p.capacity, 0xEE);
  uint32_t ignored = 0;
  const int32_t rc = output_command_anlysis(frame.data(), len(frame), p.header, p.command,
                                            parameter == nullptr ? &ignored : parameter, p.type,
                                            kWorkKey.data(), out.data(), p.capacity);
  if (rc >= 0) return hex(out.data(), static_cast<size_t>(rc));
  EXPECT_EQ(out, Bytes(p.capacity, 0xEE));
  return std::to_string(rc);
}

TEST(CommandFrame, CheckSum) {
  EXPECT_EQ(check_sum_group(Bytes(1 << 20, 0xFF).data(), 1 << 20), 0xFFU << 20);
  EXPECT_EQ(check_sum_group(nullptr, 0), 0U);
}

TEST(CommandFrame, RequestsByteForByte) {
  const struct {
    uint32_t command;
    const char* payload;
    uint8_t header;
    const char* frame;
  } cases[] = {
      {0x5012, "5A", 0x70, "70 000C 5012 00 09 0007 AA 5A 82"},
      {0x6113, "", 0x72, "72 000B 6113 00 09 0007 AA 39"},
      {0x7201, "5A", 0x72, "72 0000000E 7201 00 09 0007 AA 5A 95"},
      {0x7202, "", 0x70, "70 0000000D 7202 00 09 0007 AA 3B"},
      {0x5001, "01", 0x93, "93 000C 5001 00 01 0007 AA 01 10"},
  };
  for (const auto& c : cases) {
    const Bytes payload = from_hex(c.payload);
    const Bytes expected = from_hex(c.frame);
    Bytes out(expected.size());
    EXPECT_EQ(
        input_command_group(payload.data(), len(payload), c.header, c.command, 7, 0xAA, out.data(), len(out)),
        static_cast<int32_t>(expected.size()));
    EXPECT_EQ(hex(out), hex(expected));
    EXPECT_EQ(input_command_group(payload.data(), len(payload), c.header, c.command, 7, 0xAA, out.data(),
                                  len(payload) + 10),
              -1);
  }
  const Bytes payload(65525, 0xA5);
  Bytes out(70000);
  EXPECT_EQ(input_command_group(payload.data(), 65524, 0x70, 0x5001, 0x12345, 0xA8, out.data(), len(out)),
            65535);
  out.resize(65535);
  payload_of(out, 0x5001, 0x70, 0xA8, 0x2345);
  EXPECT_EQ(input_command_group(payload.data(), 65525, 0x70, 0x5001, 7, 0xAA, out.data(), 70000), -1);
}

TEST(CommandFrame, DeliversByCommandAndType) {
  const Bytes data = from_hex("0102030405");
  const Bytes block(16, 0x33);
  const Bytes ends_in_zero = openssl_cipher(EVP_sm4_cbc(), true, kKey, kVector, Bytes(16, 0));
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
      {"whole block of padding", 0x5012, 0xAA, seal(block), hex(block)},
      {"only padding", 0x5012, 0xAA, seal({}), ""},
      {"last byte zero", 0x5012, 0xAA, ends_in_zero, std::string(32, '0')},
      {"part of a block", 0x5012, 0xAA, seal(data) + data, "-1"},
      {"flag 1", 0x6102, 0x99, Bytes{1} + seal(data), "01" + hex(data)},
      {"flag 0", 0x6102, 0x99, Bytes{0} + data, "00" + hex(data)},
      {"flag 7 alone", 0x6113, 0x99, Bytes{7}, "07"},
      {"flag 1 alone", 0x6113, 0x99, Bytes{1}, "-1"},
      {"long form", 0x7201, 0xAA, seal(data), hex(data)},
      {"long form with a flag", 0x7202, 0x99, Bytes{2} + data, "02" + hex(data)},
      {"empty", 0x5012, 0xAA, {}, "-1"},
      {"empty 7500", 0x7500, 0xAA, {}, "-1"},
      {"padding longer than the data", 0x5012, 0xAA,
       openssl_cipher(EVP_sm4_cbc(), true, kKey, kVector, Bytes(16, 17)), "-1"},
      {"padding of all", 0x5012, 0xAA, openssl_cipher(EVP_sm4_cbc(), true, kKey, kVector, Bytes(32, 32)), ""},
  };
  for (const auto& c : cases) {
    const Bytes frame =
        response_frame({.command = c.command, .payload = c.payload, .type = c.type, .parameter = 0xFFFE});
    uint32_t parameter = 0;
    EXPECT_EQ(parse({frame, c.command, 0x70, c.type}, &parameter), c.delivered) << c.name;
    EXPECT_EQ(parameter, 0xFFFEU) << c.name;
    if (c.payload.empty()) continue;
    EXPECT_EQ(parse({frame, c.command, 0x70, c.type, len(c.payload)}), c.delivered) << c.name;
    EXPECT_EQ(parse({frame, c.command, 0x70, c.type, len(c.payload) - 1}), "-1") << c.name;
  }
}

TEST(CommandFrame, StatusDigits) {
  const struct {
    const char* status;
    const char* code;
  } cases[] = {{"001301", "-1301"},   {"0F0200", "-200"}, {"000001", "-1"}, {"999999", "-999999"},
               {"00A013", "-1"},      {"12A456", "-12"},  {"FFFFFF", "-1"}, {"0000F5", "-5"},
               {"1F2F3F", "-102030"}, {"E00000", "-1"},   {"00012C", "-12"}};
  for (const auto& c : cases) {
    for (const uint32_t command : {0x5012U, 0x7201U, 0x7500U}) {
      // The status decides before anything behind it is looked at.
      Bytes frame = response_frame(
          {.command = command, .payload = {1}, .type = 0, .parameter = 0, .status = from_hex(c.status)});
      frame.back() ^= 1;
      uint32_t parameter = 0xEEEE;
      EXPECT_EQ(parse({frame, command}, &parameter), c.code) << c.status;
      EXPECT_EQ(parameter, 0xEEEEU);
      EXPECT_EQ(parse({frame, command, 0x71}), "-1");
    }
    for (const uint32_t expected : {0x7500U, 0x7100U, 0x5012U, 0x7201U}) {
      const char* code = expected == 0x7500 || expected == 0x7100 ? c.code : "-1";
      const Bytes reply =
          response_frame({.command = 0xFFFF, .payload = {1}, .status = from_hex(c.status), .form = expected});
      EXPECT_EQ(parse({reply, expected}), code) << c.status;
    }
  }
}

TEST(CommandFrame, EveryDamageIsRefused) {
  for (const uint32_t command : {0x5012U, 0x7201U, 0x6102U}) {
    const uint8_t type = command == 0x6102 ? 0x99 : 0xAA;
    const Bytes flag = command == 0x6102 ? Bytes{1} : Bytes{};
    const ResponseFields good{.command = command, .payload = flag + seal(from_hex("0203")), .type = type};
    const Bytes frame = response_frame(good);
    const std::string delivered = hex(flag) + "0203";
    ASSERT_EQ(parse({frame, command, 0x70, type}), delivered);
    const size_t width = length_width(command);
    const size_t head = 9 + width;
    const size_t status_at = 3 + width;
    // Flipped bits with a checksum that is right again, so that only the field itself can tell.
    for (size_t bit = 0; bit < head * 8; ++bit) {
      Bytes flipped(frame.begin(), frame.end() - 1);
      flipped[bit / 8] ^= static_cast<uint8_t>(0x80 >> bit % 8);
      const bool in_parameter = bit / 8 == 6 + width || bit / 8 == 7 + width;
      const bool in_status = bit / 8 >= status_at && bit / 8 < status_at + 3;
      const std::string result = parse({summed(flipped, 1), command, 0x70, type});
      if (in_status) {
        EXPECT_EQ(result.front(), '-') << bit;
      } else {  // a parameter of 8 or more is taken
        const bool taken = in_parameter && bit != (7 + width) * 8 + 4;
        EXPECT_EQ(result, taken ? delivered : "-1") << bit;
      }
    }
    for (size_t n = 0; n < frame.size(); ++n) {
      EXPECT_EQ(parse({exact_copy(frame, n), command, 0x70, type}), "-1") << n;
      // The same with a length field that fits.
      Bytes cut = exact_copy(frame, n);
      const Bytes length = be(n, width);
      for (size_t i = 0; i < width && i + 1 < n; ++i) cut[1 + i] = length[i];
      if (n < head + 2) {
        EXPECT_EQ(parse({cut, command, 0x70, type}), "-1") << n;
      }
    }
    for (int sum = 1; sum < 256; ++sum) {
      Bytes wrong = frame;
      wrong.back() = static_cast<uint8_t>(wrong.back() + sum);
      EXPECT_EQ(parse({wrong, command, 0x70, type}), "-1");
    }
    EXPECT_EQ(parse({frame + Bytes{0}, command, 0x70, type}), "-1");
    for (const uint32_t parameter : {0U, 7U}) {
      ResponseFields low = good;
      low.parameter = parameter;
      EXPECT_EQ(parse({response_frame(low), command, 0x70, type}), "-1");
    }
  }
}

TEST(CommandFrame, FrameAndOutputMayShareABuffer) {
  for (const uint8_t flag : std::initializer_list<uint8_t>{0, 1}) {
    const Bytes data = from_hex("0102030405060708090A0B0C0D0E0F101112");
    Bytes shared = response_frame(
        {.command = 0x6102, .payload = Bytes{flag} + (flag == 1 ? seal(data) : data), .type = 0x99});
    uint32_t parameter = 0;
    EXPECT_EQ(output_command_anlysis(shared.data(), len(shared), 0x70, 0x6102, &parameter, 0x99,
                                     kWorkKey.data(), shared.data(), len(shared)),
              19);
    EXPECT_EQ(hex(shared.data() + 1, 18), hex(data));
  }
}

TEST(SecretFrame, BuildsWhatThePeerReads) {
  for (const uint32_t command : {0x5001U, 0x5022U, 0x7201U, 0x7202U}) {
    for (const uint32_t n : {1U, 4U, 5U, 6U, 7U, 20U, 22U, 500U}) {
      const Bytes data(n, 0xC3);
      Bytes out(n + 28, 0xEE);
      const int32_t written =
          input_secret_command_group(data.data(), n, command, kWorkKey.data(), out.data(), len(out));
      ASSERT_EQ(written, static_cast<int32_t>((n + 8 + length_width(command)) / 16 * 16 + 16)) << n;
      EXPECT_EQ(hex(unseal(exact_copy(out, static_cast<size_t>(written)))), hex(secret_frame(command, data)));
      EXPECT_EQ(input_secret_command_group(data.data(), n, command, kWorkKey.data(), out.data(), n + 27), -1);
    }
  }
  Bytes out(64);
  EXPECT_EQ(input_secret_command_group(out.data(), 0, 0x5001, kWorkKey.data(), out.data(), 64), -1);
}

TEST(SecretFrame, EveryDamageIsRefused) {
  for (const uint32_t command : {0x5022U, 0x7202U}) {
    const Bytes data = from_hex("0102030405060708");
    const Bytes frame = secret_frame(command, data);
    const auto open = [&](const Bytes& bytes, uint32_t capacity = 64, uint32_t expected = 0) {
      const Bytes exact = exact_copy(bytes, bytes.size());
      Bytes out(capacity, 0xEE);
      const int32_t rc = output_secret_command_analysis(
          exact.data(), len(exact), expected == 0 ? command : expected, out.data(), capacity);
      if (rc > 0) {
        EXPECT_EQ(hex(out.data(), data.size()), hex(data));
      }
      return rc;
    };
    EXPECT_EQ(open(frame), 8);
    EXPECT_EQ(open(frame, 8), 8);
    EXPECT_EQ(open(frame, 7), -1);
    EXPECT_EQ(open(frame, 64, 0x5012), -1);
    EXPECT_EQ(open(secret_frame(command, {})), -1);
    EXPECT_EQ(open(frame + Bytes{0}), -1);
    for (size_t n = 0; n < frame.size(); ++n) EXPECT_EQ(open(exact_copy(frame, n)), -1) << n;
    for (size_t bit = 0; bit < frame.size() * 8; ++bit) {
      Bytes flipped = frame;
      flipped[bit / 8] ^= static_cast<uint8_t>(1 << bit % 8);
      EXPECT_EQ(open(flipped), -1) << bit;
    }
    // The data are there although the checksum is wrong.
    Bytes wrong = frame;
    wrong[frame.size() - 3] ^= 1;
    EXPECT_EQ(output_secret_command_analysis(wrong.data(), len(wrong), command, wrong.data(), len(wrong)),
              -1);
    EXPECT_EQ(hex(wrong.data(), 8), hex(data));
  }
}

}  // namespace
