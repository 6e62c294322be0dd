#include "core/session/card_relay.h"

#include <gtest/gtest.h>

#include <cstring>
#include <future>
#include <semaphore>
#include <string>

#include "core/session/read_session.hpp"
#include "idcard/id_card_commands.h"
#include "idcard/id_card_session.h"
#include "support/bytes.hpp"

namespace {

using test::Bytes;
using test::from_hex;
using test::hex;

// The commands that reached the application: "bytes/serial".
struct Application {
  std::string seen;
  int num_commands = 0;
};

int32_t on_card(const uint8_t* apdu, uint32_t length, uint8_t serial, void* user_data) {
  auto* application = static_cast<Application*>(user_data);
  application->seen = hex(apdu, length) + "/" + std::to_string(serial);
  ++application->num_commands;
  return -1;  // what it returns is not looked at
}

class CardRelay : public testing::Test {
 protected:
  CardRelay() {
    share_register_card_callback(&cfg_, on_card, &application_);
    cfg_.readChunkSize = 212;
  }
  SessionConfig cfg_{};
  Application application_;
};

TEST_F(CardRelay, FixedCommands) {
  using Call = int32_t (*)(SessionConfig*);
  const struct {
    Call call;
    const char* sent;
  } cases[] = {
      {[](SessionConfig* c) { return id_card_find_card(c, 0); }, "050000/0"},
      {[](SessionConfig* c) { return id_card_find_card(c, 1); }, "1d0000000000080108/1"},
      {[](SessionConfig* c) { return id_card_find_card(c, 2); }, "00a40000026002/2"},
      {[](SessionConfig* c) { return id_card_find_card(c, 3); }, "80b0000020/3"},
      {[](SessionConfig* c) { return id_card_find_card(c, 0x1FF); }, "80b0000020/255"},
      {[](SessionConfig* c) { return id_card_select_file(c, 0, 7); }, "00a40000026011/7"},
      {[](SessionConfig* c) { return id_card_select_file(c, 1, 9); }, "00a40000026012/9"},
      {[](SessionConfig* c) { return id_card_select_file(c, 2, 11); }, "00a40000026013/11"},
      {[](SessionConfig* c) { return id_card_select_file(c, UINT32_MAX, 11); }, "00a40000026013/11"},
      {[](SessionConfig* c) { return id_card_auth_get_rand(c, 5); }, "0084000008/5"},
      {[](SessionConfig* c) { return id_card_read_file(c, 0, 214, 8); }, "80b00000d4/8"},
      {[](SessionConfig* c) { return id_card_read_file(c, 212, 214, 8); }, "80b000d402/8"},
      {[](SessionConfig* c) { return id_card_read_file(c, 0x1FE, 1024, 12); }, "80b001fed4/12"},
      {[](SessionConfig* c) { return id_card_read_file(c, 1023, 1024, 12); }, "80b003ff01/12"},
  };
  for (const auto& c : cases) {
    cfg_.lastStatusWord = 0x9000;
    EXPECT_EQ(c.call(&cfg_), 0);
    EXPECT_EQ(application_.seen, c.sent);
    EXPECT_EQ(cfg_.lastStatusWord, 0U);
    EXPECT_EQ(hex(cfg_.lastCommand, cfg_.lastCommandLength),
              application_.seen.substr(0, application_.seen.find('/')));
  }
  EXPECT_EQ(application_.num_commands, static_cast<int>(std::size(cases)));
}

TEST_F(CardRelay, KeepsTheStartOfTheLastCommand) {
  Bytes command(300);
  for (size_t i = 0; i < command.size(); ++i) command[i] = static_cast<uint8_t>(i);
  for (const uint32_t n : {1U, 31U, 32U, 33U, 255U, 256U, 300U}) {
    EXPECT_EQ(tq_read_card_send(&cfg_, test::exact_copy(command, n).data(), n, 3), 0);
    EXPECT_EQ(application_.seen, hex(command.data(), n) + "/3");
    EXPECT_EQ(cfg_.lastCommandLength, std::min(n, 32U));
    EXPECT_EQ(std::memcmp(cfg_.lastCommand, command.data(), cfg_.lastCommandLength), 0);
  }
}

TEST_F(CardRelay, AnswersAreJudgedByTheirStatus) {
  const uint32_t unset = 0xEEEE;
  const struct {
    const char* answer;
    int32_t result;
    uint32_t status;
  } cases[] = {
      {"", -93001, unset},
      {"02", -93006, 0x0200},
      {"00", -93001, 0},
      {"90", -1, 0x9000},
      {"9000", 0, 0x9000},
      {"6986", -93005, 0x6986},
      {"0000", -93001, 0},
      {"6A82", -1, 0x6A82},
      {"0090", -1, 0x0090},
      {"900000", 0, 0x9000},
      {"AA9000", 1, 0x9000},
      {"698600", -93005, 0x6986},
      {"698601", -1, 0x6986},
      {"000012", -93001, 0},
      {"6A8200", -1, 0x6A82},
      {"AABB9000", 2, 0x9000},
      {"AA900000", 1, 0x9000},
      {"90009000", 2, 0x9000},
      {"9000900000", 2, 0x9000},
      {"90000000", -1, 0x90009000},
      {"AABB6A82", -1, 0xAABB6A82},
      {"AABBCC6A00", -1, 0xAABB6A00},
      {"AABBCC6A0000", -1, 0xAABB6A00},
      {"AABB0000", -1, 0xAABBBB00},
      {"00006A82", -93001, 0x00006A82},
      {"00000000", -93001, 0},
      {"0000006A8200", -93001, 0x00008200},
      {"69860000", -1, 0x69868600},
      {"00009000", 2, 0x9000},
  };
  for (const auto& c : cases) {
    const Bytes answer = from_hex(c.answer);
    const size_t room = c.result > 0 ? static_cast<size_t>(c.result) : 0;
    Bytes out(room, 0xEE);
    cfg_.lastStatusWord = unset;
    id_card_auth_get_rand(&cfg_, 1);
    if (answer.empty()) cfg_.lastStatusWord = unset;
    uint8_t none = 0xEE;
    EXPECT_EQ(tq_read_card_anlysis(&cfg_, answer.empty() ? &none : answer.data(),
                                   static_cast<uint32_t>(answer.size()), room == 0 ? &none : out.data(),
                                   static_cast<uint32_t>(room)),
              c.result)
        << c.answer;
    EXPECT_EQ(cfg_.lastStatusWord, c.status) << c.answer;
    EXPECT_EQ(hex(out), hex(answer.data(), room)) << c.answer;
    EXPECT_EQ(none, 0xEE);
    EXPECT_EQ(cfg_.lastCommandLength, c.result >= 0 ? 0 : 5) << c.answer;
    EXPECT_EQ(cfg_.lastCommand[1], c.result >= 0 ? 0 : 0x84) << c.answer;
  }
}

TEST_F(CardRelay, DataBeyondTheRoomIsRefused) {
  for (const char* end : {"9000", "900000"}) {
    const Bytes answer = from_hex("0102030405060708090A0B0C0D0E0F1011121314" + std::string(end));
    Bytes out(20, 0xEE);
    EXPECT_EQ(
        tq_read_card_anlysis(&cfg_, answer.data(), static_cast<uint32_t>(answer.size()), out.data(), 19), -1);
    EXPECT_EQ(out, Bytes(20, 0xEE));
    EXPECT_EQ(
        tq_read_card_anlysis(&cfg_, answer.data(), static_cast<uint32_t>(answer.size()), out.data(), 20), 20);
    EXPECT_EQ(hex(out), hex(answer.data(), 20));
  }
}

std::promise<void>* g_began = nullptr;
std::promise<tq::CardAnswer>* g_answer = nullptr;
std::counting_semaphore<> g_ended{0};

// Without the check of virtual calls: the library is built without run-time type information.
__attribute__((no_sanitize("vptr"))) void take_one_answer(tq::ReadSession& session) {
  session.accept_answers();
  g_began->set_value();
  tq::CardAnswer answer;
  if (session.wait_for_answer(answer)) g_answer->set_value(answer);
}

TEST_F(CardRelay, HandlerTakesOneTo300Bytes) {
  const struct {
    bool has_data;
    uint32_t length;
    int32_t status;
    uint16_t stored;
  } cases[] = {{true, 1, 0, 1},   {true, 300, 7, 300}, {true, 301, 0, 0},  {true, 0, 0, 0},
               {true, 20, -1, 0}, {false, 20, 0, 0},   {true, 65537, 0, 0}};
  const Bytes data(65537, 0x5A);
  tq::set_read_end_hook([](const SessionConfig*) { g_ended.release(); });
  for (const auto& c : cases) {
    std::promise<void> began;
    std::promise<tq::CardAnswer> promise;
    g_began = &began;
    g_answer = &promise;
    ASSERT_EQ(tq::start_read(tq::ReadKind::kIdentityCard, cfg_, take_one_answer, [] {}), TQ_OK);
    began.get_future().wait();
    id_card_handler(&cfg_, c.has_data ? data.data() : nullptr, c.length, 250, c.status);
    const tq::CardAnswer answer = promise.get_future().get();
    g_ended.acquire();
    EXPECT_EQ(answer.length, c.stored) << c.length;
    EXPECT_EQ(hex(answer.bytes()), hex(data.data(), c.stored));
    EXPECT_EQ(answer.serial, 250);
    EXPECT_EQ(answer.status, c.status);
  }
  tq::set_read_end_hook(nullptr);
  id_card_handler(nullptr, data.data(), 2, 1, 0);  // after every read: harmless
}

}  // namespace
