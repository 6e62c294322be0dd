#include "passport/passport_commands.h"

#include <gtest/gtest.h>

#include <array>

#include "protocol/server_peer.hpp"

namespace {

using namespace test;

const Bytes kToken = from_hex("A0A1A2A3A4A5A6A7A8A9AAABACADAEAF");

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

TEST(PassportCommands, StartByteForByte) {
  const WithSystemRandom zeros(SystemRandom::kZeros);
  for (const size_t device : {0, 19, 68, 69}) {
    SessionConfig cfg = config_with_device(device);
    cfg.readMode = 1;
    const Bytes data = exact_copy(kRandomNow, 4) + be(device, 1) + Bytes(device, 'd') + from_hex("11 12 10");
    expect_built(
        [&](uint8_t* out, uint32_t room) { return input_7201_cmd_group(&cfg, kWorkKey.data(), out, room); },
        device > 68 ? Bytes{} : request_frame(0x7201, seal(secret_frame(0x7201, data)), 0x72));
  }
}

TEST(PassportCommands, Answers) {
  const auto start = [](const uint8_t* frame, uint32_t length, uint8_t* out, uint32_t room) {
    return output_7201_cmd_analysis(frame, length, kWorkKey.data(), out, room);
  };
  const auto files = [](const uint8_t* frame, uint32_t length, uint8_t* out, uint32_t room) {
    return output_7202_cmd_analysis(frame, length, kWorkKey.data(), out, room);
  };
  for (const size_t n : {16, 5, 0, 17}) {
    const Bytes plain(n, 0x77);
    const Bytes frame = response_frame({.command = 0x7201, .payload = seal(plain), .header = 0x72});
    expect_parsed(start, frame, n > 16 ? "-1" : hex(plain), 16);
    Bytes token(16, 0xEE);
    start(frame.data(), len(frame), token.data(), 16);
    EXPECT_EQ(hex(token), hex(n > 16 ? Bytes(16, 0xEE) : plain + Bytes(16 - n)));
  }
  const Bytes content = from_hex("00 01 02 03 04");
  for (const Bytes& payload : {Bytes{1} + seal(content), Bytes{0} + content}) {
    const Bytes frame = response_frame({.command = 0x7202, .payload = payload, .header = 0x72, .type = 0x99});
    expect_parsed(files, frame, hex(exact_copy(payload, 1) + content), payload.size());
    expect_parsed(files, frame, "-1", payload.size() - 1);
  }
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
  table.add(TQ_EF_DG2, Bytes(65535, 0x02));
  const PassportTiming timing = {0x10203, 0xFEDCBA, 2, 0, 0, ""};
  Bytes answer(128, 0x5A), challenge(8, 0xC0);
  const auto build = [&](uint8_t* out, uint32_t room) {
    return input_7202_cmd_group(table.rows.empty() ? nullptr : table.rows.data(), table.count(),
                                kWorkKey.data(), answer.data(), len(answer), challenge.data(), len(challenge),
                                out, room, kToken.data(), &timing);
  };
  const Bytes groups = be(93, 2) + Bytes(93, 0x01) + be(65535, 2) + Bytes(65535, 0x02) +
                       Bytes(size_t{2} * 13) + be(300, 2) + Bytes(300, 0x16);
  const Bytes data = groups + be(1700, 2) + Bytes(1700, 0x1D) + be(128, 2) + answer + challenge + be(22, 2) +
                     Bytes(22, 0x1E) + from_hex("0203 DCBA");
  const Bytes frame = request_frame(0x7202, kToken + seal(secret_frame(0x7202, data)), 0x72);
  Bytes out(200000);
  EXPECT_EQ(text_of(build(out.data(), len(out)), out), hex(frame));
  for (const uint32_t room : {0U, 27U, 28U, 60U, len(frame) - 2})
    EXPECT_EQ(build(out.data(), room), -1) << room;
  table.add(0x0103, Bytes(65536));
  EXPECT_EQ(build(out.data(), len(out)), -1);
  table = {};
  answer.resize(65536);
  EXPECT_EQ(build(out.data(), len(out)), -1);
  answer.clear();
  challenge.resize(9);
  EXPECT_EQ(build(out.data(), len(out)), -1);
  challenge.clear();
  const Bytes nothing = Bytes(46) + from_hex("0203 DCBA");
  EXPECT_EQ(text_of(build(out.data(), len(out)), out),
            hex(request_frame(0x7202, kToken + seal(secret_frame(0x7202, nothing)), 0x72)));
}

TEST(PassportCommands, FileTable) {
  Table table;
  for (const int id : {0x011E, 0x0101, 0x0101}) table.add(static_cast<uint16_t>(id), {});
  EXPECT_EQ(get_dg_data_sub(table.rows.data(), 3, TQ_EF_DG1), 1);
  EXPECT_EQ(get_dg_data_sub(table.rows.data(), 1, TQ_EF_DG1), -1);
  EXPECT_EQ(get_dg_data_sub(nullptr, 3, TQ_EF_DG1), -1);
}

TEST(PassportCommands, StatusText) {
  const auto text_of_table = [](const Table& table) {
    std::array<char, TQ_STATUS_TEXT_SIZE> out{};
    out.fill('x');
    const int32_t length = passport_file_status_text(table.rows.data(), table.count(), out.data());
    EXPECT_EQ(std::strlen(out.data()), static_cast<size_t>(length));
    return std::string(out.data());
  };
  Table table;
  EXPECT_EQ(text_of_table(table), "");
  table.add(0x0100, {});
  table.add(TQ_EF_DG15, {}, 0x6A82);
  table.add(0x0109, {});
  table.add(0x010A, {});
  table.add(0x0111, {});
  table.add(TQ_EF_DG1, {}, 0);
  table.add(TQ_EF_SOD, {}, 0xFFFFFFFF);
  table.add(TQ_EF_COM, {}, 0x6);
  EXPECT_EQ(text_of_table(table),
            "dg15_str:6A82;dg9_str:9000;dg10_str:9000;dg1_str:;sod_str:FFFFFFFF;com_str:6");

  // The row that takes the text past 245 is the last, and one beyond the buffer is left out.
  const struct {
    uint32_t dg2, com;
    size_t length;
  } cases[] = {{0x6A8, 0, 254}, {0x6A8, 0x6, 255}, {0x6A8, 0x6A, 245}, {0x6A82, 0, 246}};
  for (const auto& c : cases) {
    Table full;
    for (int i = 0; i < 16; ++i) full.add(TQ_EF_DG15, {});
    full.add(TQ_EF_DG1, {}, 0x6);
    full.add(TQ_EF_DG2, {}, c.dg2);
    full.add(TQ_EF_COM, {}, c.com);
    EXPECT_EQ(text_of_table(full).size(), c.length);
  }
}

}  // namespace
