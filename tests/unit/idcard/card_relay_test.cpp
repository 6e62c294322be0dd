#include "core/session/card_relay.h"

#include <gtest/gtest.h>

#include "idcard/id_card_commands.h"
#include "support/bytes.hpp"

namespace {

using namespace test;

class CardRelay : public testing::Test {
 protected:
  CardRelay() {
    cfg_.readChunkSize = 212;
    share_register_card_callback(
        &cfg_,
        [](const uint8_t* apdu, uint32_t length, uint8_t serial, void* seen) {
          *static_cast<std::string*>(seen) = hex(apdu, length) + "/" + std::to_string(serial);
          return -1;  // what it returns is not looked at
        },
        &seen_);
  }
  SessionConfig cfg_{};
  std::string seen_;  // the last command that reached the application: "bytes/serial"
};

TEST_F(CardRelay, NumbersBeyondTheLast) {
  id_card_find_card(&cfg_, 0x1FF);
  EXPECT_EQ(seen_, "80b0000020/255");
  id_card_select_file(&cfg_, UINT32_MAX, 11);
  EXPECT_EQ(seen_, "00a40000026013/11");
  tq_read_card_send(&cfg_, Bytes(300, 0x5A).data(), 300, 3);
  EXPECT_EQ(seen_, hex(Bytes(300, 0x5A)) + "/3");
  EXPECT_EQ(cfg_.lastCommandLength, 32);
}

TEST_F(CardRelay, AnswersAreJudgedByTheirStatus) {
  constexpr uint32_t kUnset = 0xEEEE;
  const struct {
    const char* answer;
    int32_t result;
    uint32_t status;
  } cases[] = {
      {"", -93001, kUnset},
      {"02", -93006, 0x0200},
      {"00", -93001, 0},
      {"90", -1, 0x9000},
      {"9000", 0, 0x9000},
      {"6986", -93005, 0x6986},
      {"0000", -93001, 0},
      {"0090", -1, 0x0090},
      {"900000", 0, 0x9000},
      {"AA9000", 1, 0x9000},
      {"698600", -93005, 0x6986},
      {"698601", -1, 0x6986},
      {"000012", -93001, 0},
      {"6A8200", -1, 0x6A82},
      {"AA900000", 1, 0x9000},
      {"90009000", 2, 0x9000},
      {"9000900000", 2, 0x9000},
      {"90000000", -1, 0x90009000},
      {"AABB6A82", -1, 0xAABB6A82},
      {"AABBCC6A0000", -1, 0xAABB6A00},
      {"AABB0000", -1, 0xAABBBB00},
      {"00006A82", -93001, 0x6A82},
      {"00000000", -93001, 0},
      {"0000006A8200", -93001, 0x8200},
      {"69860000", -1, 0x69868600},
      {"00009000", 2, 0x9000},
  };
  for (const auto& c : cases) {
    const Bytes answer = from_hex(c.answer);
    const size_t room = c.result > 0 ? static_cast<size_t>(c.result) : 0;
    Bytes out(room + 1, 0xEE);
    id_card_auth_get_rand(&cfg_, 1);
    cfg_.lastStatusWord = kUnset;
    EXPECT_EQ(tq_read_card_anlysis(&cfg_, answer.empty() ? out.data() : answer.data(), len(answer),
                                   out.data(), static_cast<uint32_t>(room)),
              c.result)
        << c.answer;
    EXPECT_EQ(cfg_.lastStatusWord, c.status) << c.answer;
    EXPECT_EQ(hex(out), hex(exact_copy(answer, room) + Bytes{0xEE})) << c.answer;
    EXPECT_EQ(hex(cfg_.lastCommand, cfg_.lastCommandLength), c.result >= 0 ? "" : "0084000008") << c.answer;
    EXPECT_EQ(cfg_.lastCommand[1], c.result >= 0 ? 0 : 0x84) << c.answer;
    if (room == 0) continue;
    EXPECT_EQ(
        tq_read_card_anlysis(&cfg_, answer.data(), len(answer), out.data(), static_cast<uint32_t>(room - 1)),
        -1);
  }
}

}  // namespace
