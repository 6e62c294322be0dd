#include "passport/passport_commands.h"

#include <gtest/gtest.h>

#include "support/bytes.hpp"

namespace {

using namespace test;

PassportFileRecord row(uint16_t id, uint32_t status, uint32_t received = 0, uint8_t* data = nullptr) {
  return {data, received, id, status, 0, 0};
}

TEST(PassportCommands, FilesThatDoNotFit) {
  const Bytes keys(32), challenge(9);
  Bytes content(65536), out(140000);
  const PassportTiming timing{};
  const auto build = [&](uint32_t file, uint32_t answer, uint32_t asked, uint32_t room) {
    const PassportFileRecord file_row = row(TQ_EF_DG1, 0x9000, file, content.data());
    return input_7202_cmd_group(&file_row, 1, keys.data(), content.data(), answer, challenge.data(), asked,
                                out.data(), room, keys.data(), &timing);
  };
  const int32_t most = build(65535, 65535, 8, len(out));
  EXPECT_GT(most, 2 * 65535);
  EXPECT_EQ(build(65536, 1, 8, len(out)), -1);
  EXPECT_EQ(build(1, 65536, 8, len(out)), -1);
  EXPECT_EQ(build(1, 1, 9, len(out)), -1);
  for (const uint32_t room : {0U, 27U, 28U, 60U, static_cast<uint32_t>(most) - 2})
    EXPECT_EQ(build(65535, 65535, 8, room), -1) << room;
}

TEST(PassportCommands, RowsAndTheirStatus) {
  const PassportFileRecord rows[] = {row(0x0100, 1),      row(TQ_EF_DG15, 0x6A82),    row(0x0109, 0x9000),
                                     row(0x010A, 0x9000), row(0x0111, 0x9000),        row(TQ_EF_DG1, 0),
                                     row(TQ_EF_DG1, 2),   row(TQ_EF_SOD, 0xFFFFFFFF), row(TQ_EF_COM, 0x6)};
  EXPECT_EQ(get_dg_data_sub(rows, 9, TQ_EF_DG1), 5);
  EXPECT_EQ(get_dg_data_sub(rows, 5, TQ_EF_DG1), -1);
  EXPECT_EQ(get_dg_data_sub(nullptr, 9, TQ_EF_DG1), -1);
  char out[TQ_STATUS_TEXT_SIZE];
  passport_file_status_text(rows, 9, out);
  EXPECT_STREQ(out, "dg15_str:6A82;dg9_str:9000;dg10_str:9000;dg1_str:;dg1_str:2;sod_str:FFFFFFFF;com_str:6");

  // The row that takes the text past 245 is the last, and one beyond the buffer is left out.
  const struct {
    uint32_t dg2, com;
    int32_t length;
  } cases[] = {{0x6A8, 0, 254}, {0x6A8, 0x6, 255}, {0x6A8, 0x6A, 245}, {0x6A82, 0, 246}};
  for (const auto& c : cases) {
    std::vector<PassportFileRecord> full(16, row(TQ_EF_DG15, 0x9000));
    full.insert(full.end(), {row(TQ_EF_DG1, 0x6), row(TQ_EF_DG2, c.dg2), row(TQ_EF_COM, c.com)});
    EXPECT_EQ(passport_file_status_text(full.data(), 19, out), c.length);
  }
}

}  // namespace
