#include "passport/file_reader.h"

#include <gtest/gtest.h>

#include "passport/chip_peer.hpp"
#include "util/memory.h"

namespace {

using namespace test;

// One file after the other, answer by answer, as a caller of the exported function reads them.
TEST(FileReader, AnswerByAnswer) {
  SessionConfig cfg{};
  cfg.readChunkSize = 212;
  Bytes sent;
  share_register_card_callback(
      &cfg,
      [](const uint8_t* apdu, uint32_t n, uint8_t, void* to) -> int32_t {
        static_cast<Bytes*>(to)->assign(apdu, apdu + n);
        return 0;
      },
      &sent);
  PassportSession session{};
  Chip chip(Bytes(16), Bytes(16), 0);
  PassportFileRecord table[TQ_PASSPORT_FILES_MAX]{};
  uint32_t count = 0;
  const auto give = [&](const Bytes& answer, uint16_t id) {
    std::copy(answer.begin(), answer.end(), session.answer);
    return passport_file_read_next(&cfg, len(answer), id, 8, &session, table, &count);
  };
  const auto good = [&](const char* data) {
    return chip.answer(chip.padded_cryptogram(from_hex(data)) + from_hex("99029000")) + from_hex("9000");
  };
  for (uint16_t id = 1; id <= TQ_PASSPORT_FILES_MAX; ++id) {
    EXPECT_EQ(give(good("61 03 0102"), id), 1);
    EXPECT_TRUE(chip.accepts(sent, from_hex("0CB00004"), {}, 1));
    EXPECT_EQ(give(good("03 FF"), id), 0);  // more than asked for
  }
  EXPECT_EQ(give(from_hex("6A82"), 1), -1);
  EXPECT_EQ(table[0].status, 0x6A82U);
  EXPECT_EQ(give(good("61 03 0102"), 0x0201), -93006);  // no row is left
  EXPECT_EQ(passport_file_read_next(&cfg, TQ_CARD_ANSWER_MAX + 1, 1, 8, &session, table, &count), -93006);
  EXPECT_EQ(passport_file_read_next(&cfg, 2, 1, 8, nullptr, table, &count), -93006);
  for (PassportFileRecord& row : table) {
    EXPECT_EQ(hex(row.data, row.received), "6103010203");
    tq_mem_free(row.data);
  }
  const Bytes command = from_hex("00880000 28") + Bytes(40);
  EXPECT_EQ(
      passport_read_file(&cfg, command.data(), len(command), 9, session.ksenc, session.ksmac, session.ssc, 1),
      -1);
}

}  // namespace
