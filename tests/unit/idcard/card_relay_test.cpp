#include "core/session/card_relay.h"

#include <gtest/gtest.h>

#include "idcard/id_card_commands.h"
#include "support/bytes.hpp"

namespace {

using namespace test;

TEST(CardRelay, NumbersBeyondTheLast) {
  SessionConfig cfg{};
  std::string seen;  // the last command that reached the application: "bytes/serial"
  share_register_card_callback(
      &cfg,
      [](const uint8_t* apdu, uint32_t length, uint8_t serial, void* to) {
        *static_cast<std::string*>(to) = hex(apdu, length) + "/" + std::to_string(serial);
        return -1;  // what it returns is not looked at
      },
      &seen);
  id_card_find_card(&cfg, 0x1FF);
  EXPECT_EQ(seen, "80b0000020/255");
  id_card_select_file(&cfg, UINT32_MAX, 11);
  EXPECT_EQ(seen, "00a40000026013/11");
  tq_read_card_send(&cfg, Bytes(300, 0x5A).data(), 300, 3);
  EXPECT_EQ(seen, hex(Bytes(300, 0x5A)) + "/3");
  EXPECT_EQ(cfg.lastCommandLength, 32);
  for (const auto& answer : {from_hex("AA9000"), from_hex("9000")})  // without room for data
    EXPECT_EQ(tq_read_card_anlysis(&cfg, answer.data(), len(answer), nullptr, 5),
              answer.size() == 2 ? 0 : -1);
}

}  // namespace
