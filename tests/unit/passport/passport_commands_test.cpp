#include "passport/passport_commands.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>

#include "protocol/server_peer.hpp"

namespace {

using namespace test;

const Bytes kToken = from_hex("A0A1A2A3A4A5A6A7A8A9AAABACADAEAF");
const Bytes kAaAnswer(128, 0x5A);
const Bytes kChallenge = from_hex("C0C1C2C3C4C5C6C7");
constexpr PassportTiming kTiming = {0x10203, 0xFEDCBA, 2, 0, 0, ""};

SessionConfig config(size_t device_length) {
  SessionConfig cfg{};
  std::memset(reinterpret_cast<char*>(&cfg) + offsetof(SessionConfig, sn1), 'd', device_length);
  cfg.timestampCallback = now;
  cfg.decodeMode = 1;
  cfg.readMode = 1;
  cfg.frameFlag = 1;
  cfg.queryInfo[0] = 2;
  cfg.queryInfo[1] = 1;
  return cfg;
}

// A file table over bytes that stay with the test.
struct Table {
  std::vector<Bytes> contents;
  std::vector<PassportFileRecord> rows;

  void add(uint16_t id, const Bytes& bytes, uint32_t status = 0x9000) {
    contents.push_back(bytes);
    rows.push_back({nullptr, len(bytes), id, status, 0, 0});
    for (size_t i = 0; i < rows.size(); ++i)
      rows[i].data = contents[i].empty() ? nullptr : contents[i].data();
  }
  uint32_t count() const { return static_cast<uint32_t>(rows.size()); }
};

std::string text_of(int32_t rc, const Bytes& out) {
  return rc < 0 ? std::to_string(rc) : hex(out.data(), static_cast<size_t>(rc));
}

TEST(PassportCommands, StartByteForByte) {
  for (const size_t device : {size_t{0}, size_t{19}, size_t{68}}) {
    SessionConfig cfg = config(device);
    const Bytes data =
        exact_copy(kRandomNow, 4) + Bytes{uint8_t(device)} + Bytes(device, 'd') + from_hex("11 12 10");
    const Bytes expected = request_frame(0x7201, seal(secret_frame(0x7201, data)), 0x72);
    for (const auto& [capacity, fits] :
         {std::pair{512U, true}, {len(expected), true}, {len(expected) - 1, false}}) {
      Bytes out(capacity);
      const int32_t rc = input_7201_cmd_group(&cfg, kWorkKey.data(), out.data(), capacity);
      EXPECT_EQ(text_of(rc, out), fits ? hex(expected) : "-1") << device << " " << capacity;
    }
  }
  SessionConfig too_long = config(69);
  Bytes out(512);
  EXPECT_EQ(input_7201_cmd_group(&too_long, kWorkKey.data(), out.data(), 512), -1);
}

TEST(PassportCommands, TokenOfTheStart) {
  const struct {
    Bytes plain;
    int32_t result;
  } cases[] = {{kToken, 16}, {Bytes(5, 0x77), 5}, {{}, 0}, {Bytes(17, 0x77), -1}};
  for (const auto& c : cases) {
    const Bytes frame = response_frame({.command = 0x7201, .payload = seal(c.plain), .header = 0x72});
    Bytes token(16, 0xEE);
    const auto open = [&](const Bytes& bytes) {
      const Bytes exact = exact_copy(bytes, bytes.size());
      return output_7201_cmd_analysis(exact.data(), len(exact), kWorkKey.data(), token.data(), 16);
    };
    EXPECT_EQ(open(frame), c.result);
    EXPECT_EQ(hex(token), hex(c.result < 0 ? Bytes(16, 0xEE) : c.plain + Bytes(16 - c.plain.size())));
    for (size_t n = 0; n < frame.size(); ++n) EXPECT_EQ(open(exact_copy(frame, n)), -1) << n;
  }
  const Bytes refusal = response_frame(
      {.command = 0x7201, .payload = {0}, .header = 0x72, .parameter = 0, .status = from_hex("000512")});
  Bytes token(16);
  EXPECT_EQ(output_7201_cmd_analysis(refusal.data(), len(refusal), kWorkKey.data(), token.data(), 16), -512);
}

TEST(PassportCommands, FilesByteForByte) {
  Table table;
  table.add(TQ_EF_COM, Bytes(22, 0x1E));
  table.add(TQ_EF_SOD, Bytes(1700, 0x1D));
  table.add(TQ_EF_DG15, {}, 0x6A82);
  table.add(0x0110, Bytes(300, 0x16));
  table.add(TQ_EF_DG1, Bytes(93, 0x01));
  table.add(TQ_EF_DG1, Bytes(7, 0xFF));  // the first row counts
  table.add(0x0111, Bytes(9, 0xFF));     // no such file
  table.add(TQ_EF_DG2, Bytes(18000, 0x02));
  for (const bool answered : {true, false}) {
    const Bytes aa = answered ? kAaAnswer : Bytes{};
    const Bytes challenge = answered ? kChallenge : Bytes(8);
    Bytes data = be(93, 2) + Bytes(93, 0x01) + be(18000, 2) + Bytes(18000, 0x02) + Bytes(size_t{2} * 13) +
                 be(300, 2) + Bytes(300, 0x16) + be(1700, 2) + Bytes(1700, 0x1D) + be(aa.size(), 2) + aa +
                 challenge + be(22, 2) + Bytes(22, 0x1E) + from_hex("0203 DCBA");
    const Bytes expected = request_frame(0x7202, kToken + seal(secret_frame(0x7202, data)), 0x72);
    Bytes out(2 * expected.size());
    const auto build = [&](uint32_t capacity) {
      return input_7202_cmd_group(table.rows.data(), table.count(), kWorkKey.data(), aa.data(), len(aa),
                                  challenge.data(), 8, out.data(), capacity, kToken.data(), &kTiming);
    };
    EXPECT_EQ(text_of(build(len(out)), out), hex(expected));
    for (const uint32_t capacity : {0U, 27U, 28U, 60U, len(expected) - 2})
      EXPECT_EQ(build(capacity), -1) << capacity;
  }
}

TEST(PassportCommands, FilesOfNoPassport) {
  Bytes out(1024);
  const Bytes data = Bytes(size_t{2} * 17) + Bytes(2) + Bytes(8) + Bytes(2) + from_hex("0203 DCBA");
  const int32_t rc = input_7202_cmd_group(nullptr, 0, kWorkKey.data(), nullptr, 0, nullptr, 0, out.data(),
                                          1024, kToken.data(), &kTiming);
  EXPECT_EQ(text_of(rc, out), hex(request_frame(0x7202, kToken + seal(secret_frame(0x7202, data)), 0x72)));
}

TEST(PassportCommands, LengthsThatDoNotFit) {
  Bytes out(200000);
  const auto build = [&](size_t file, size_t answer, uint32_t challenge) {
    Table table;
    table.add(TQ_EF_DG2, Bytes(file));
    const Bytes aa(answer);
    return input_7202_cmd_group(table.rows.data(), 1, kWorkKey.data(), aa.data(), len(aa), kChallenge.data(),
                                challenge, out.data(), len(out), kToken.data(), &kTiming);
  };
  EXPECT_GT(build(65535, 300, 8), 65535);
  EXPECT_EQ(build(65536, 300, 8), -1);
  EXPECT_EQ(build(10, 65536, 8), -1);
  EXPECT_EQ(build(10, 300, 9), -1);
}

TEST(PassportCommands, DecodedFiles) {
  const Bytes content = from_hex("00 01 02 03 04");
  const struct {
    Bytes payload;
    std::string result;
    uint32_t capacity;
  } cases[] = {{Bytes{1} + seal(content), "01" + hex(content), 100},
               {Bytes{0} + content, "00" + hex(content), 6},
               {Bytes{2} + content, "02" + hex(content), 6},
               {Bytes{0} + content, "-1", 5},
               {Bytes{1} + Bytes(15), "-1", 100},
               {{}, "-1", 100}};
  for (const auto& c : cases) {
    const Bytes frame =
        response_frame({.command = 0x7202, .payload = c.payload, .header = 0x72, .type = 0x99});
    Bytes out(c.capacity);
    const auto open = [&](const Bytes& bytes) {
      const Bytes exact = exact_copy(bytes, bytes.size());
      return text_of(
          output_7202_cmd_analysis(exact.data(), len(exact), kWorkKey.data(), out.data(), c.capacity), out);
    };
    EXPECT_EQ(open(frame), c.result);
    for (size_t n = 0; n < frame.size(); ++n) EXPECT_EQ(open(exact_copy(frame, n)), "-1") << n;
  }
}

TEST(PassportCommands, FileTable) {
  Table table;
  EXPECT_EQ(get_dg_data_sub(table.rows.data(), 0, TQ_EF_DG1), -1);
  for (const int id : {0x011E, 0x0101, 0x0101}) table.add(static_cast<uint16_t>(id), {});
  EXPECT_EQ(get_dg_data_sub(table.rows.data(), 3, TQ_EF_DG1), 1);
  EXPECT_EQ(get_dg_data_sub(table.rows.data(), 1, TQ_EF_DG1), -1);
  EXPECT_EQ(get_dg_data_sub(nullptr, 3, TQ_EF_DG1), -1);
}

TEST(PassportCommands, StatusText) {
  Table table;
  std::array<char, TQ_STATUS_TEXT_SIZE> out{};
  out.fill('x');
  EXPECT_EQ(passport_file_status_text(nullptr, 0, out.data()), 0);
  EXPECT_STREQ(out.data(), "");
  table.add(0x0100, {});
  table.add(TQ_EF_DG15, {}, 0x6A82);
  table.add(TQ_EF_DG11, {});
  table.add(0x0111, {});
  table.add(TQ_EF_DG1, {}, 0);
  table.add(TQ_EF_SOD, {}, 0xFFFFFFFF);
  table.add(TQ_EF_COM, {}, 0x6);
  const std::string text = "dg15_str:6A82;dg11_str:9000;dg1_str:;sod_str:FFFFFFFF;com_str:6";
  EXPECT_EQ(passport_file_status_text(table.rows.data(), table.count(), out.data()),
            static_cast<int32_t>(text.size()));
  EXPECT_STREQ(out.data(), text.c_str());

  // The row that takes the text past 245 is the last, and one beyond the buffer is left
  // out.
  for (const uint32_t status : {0x9000U, 0xFFFFFFFFU}) {
    Table full;
    std::string expected;
    for (size_t i = 0; i < 30; ++i) {
      full.add(TQ_EF_DG15, {}, status);
      const std::string row =
          std::string(i == 0 ? "" : ";") + (status == 0x9000 ? "dg15_str:9000" : "dg15_str:FFFFFFFF");
      if (expected.size() <= 245 && expected.size() + row.size() < out.size()) expected += row;
    }
    EXPECT_EQ(passport_file_status_text(full.rows.data(), full.count(), out.data()),
              static_cast<int32_t>(expected.size()));
    EXPECT_EQ(std::string(out.data()), expected);
    EXPECT_GT(expected.size(), 230U);
  }
}

}  // namespace
