#include "protocol/monitor_report.h"

#include <gtest/gtest.h>

#include <cstring>
#include <future>
#include <string>

#include "protocol/loopback_server.hpp"
#include "protocol/server_peer.hpp"
#include "protocol/tcp_transport.h"

namespace {

using namespace test;

Bytes plain_block(const std::string& text) {
  return summed(be(text.size() + 3, 2) + from_text(text), 0);
}

TEST(MonitorReport, RequestByteForByte) {
  const Bytes prefix = from_hex("101112131415161718191A1B1C1D1E1F");
  for (const size_t n : {0, 1, 12, 13, 14, 2000}) {
    for (const uint8_t route : std::initializer_list<uint8_t>{0, 1, 2}) {
      const std::string text(n, 'j');
      SessionConfig cfg{};
      cfg.serverRoute = route;
      const bool has_prefix = route == 2;
      const Bytes payload = (has_prefix ? prefix : Bytes(16, 0)) + seal(plain_block(text));
      const Bytes expected = request_frame(0x7219, payload, static_cast<uint8_t>(0x70 + route), 0x19);
      Bytes out(expected.size());
      EXPECT_EQ(input_7219_group(&cfg, text.data(), static_cast<uint32_t>(n), kWorkKey.data(), out.data(),
                                 len(out), has_prefix ? prefix.data() : nullptr),
                static_cast<int32_t>(expected.size()));
      EXPECT_EQ(hex(out), hex(expected)) << n;
      EXPECT_EQ(input_7219_group(&cfg, text.data(), static_cast<uint32_t>(n), kWorkKey.data(), out.data(),
                                 len(out) - 1, nullptr),
                -1);
    }
  }
  SessionConfig cfg{};
  Bytes room(70000);
  EXPECT_EQ(input_7219_group(&cfg, reinterpret_cast<char*>(room.data()), 65520, kWorkKey.data(), room.data(),
                             len(room), nullptr),
            -1);
}

std::string g_record;
int32_t g_length = 0;

std::string quoted(const char* text) {
  return "'" + std::string(text) + "' ";
}

int32_t show(const monitor_param* p, char* out, uint32_t room) {
  EXPECT_EQ(room, 2000U);
  g_record = quoted(p->reqid) + std::to_string(p->result_code) + " " + std::to_string(p->decode_times) + " " +
             std::to_string(p->time_delay) + " " + std::to_string(p->nfc_err_code) + " " +
             quoted(p->nfc_err_cmd) + std::to_string(p->card_type) + " " + quoted(p->device_id) +
             quoted(p->appid) + quoted(p->sod_file) + p->stickCard_id;
  if (g_length > 0) std::memset(out, 'm', std::min<size_t>(static_cast<size_t>(g_length), room));
  return g_length;
}

TEST(MonitorReport, ShowsTheRecordAndSendsTheText) {
  const Bytes stick = from_hex("000102030405060708090A0B0C0D0EFF");
  uint8_t business_id[] = "BIZ";
  const struct {
    uint8_t route;
    int32_t length;  // what the application answers
    bool sent;
    const char* record;
  } cases[] = {
      {0, 300, true,
       "'BIZ' -93001 56 7 27266 '80B0000020' 0 'device-1' 'Abcdefghij0123456789' 'sod' "
       "000102030405060708090A0B0C0D0EFF"},
      {1, 2000, true,
       "'BIZ' -93001 56 7 27266 '80B0000020' 2 'device-1' 'Abcdefghij0123456789' 'sod' "
       "000102030405060708090A0B0C0D0EFF"},
      {2, -1, false,
       "'BIZ' -93001 56 7 27266 '80B0000020' 1 'device-1' 'Abcdefghij0123456789' 'sod' "
       "000102030405060708090A0B0C0D0EFF"},
      {0, 2049, false, nullptr},
  };
  for (const auto& c : cases) {
    std::promise<Bytes> frame;
    LoopbackServer server([&](const Peer& peer) {
      const Bytes received = peer.read_frame();
      if (!received.empty()) peer.write(from_hex("700003"));  // not examined
      frame.set_value(received);
      peer.wait_for_end();
    });
    SessionConfig cfg = server.config();
    std::memcpy(cfg.appid, "Abcdefghij0123456789", 20);
    std::memcpy(cfg.sn1, "device-1", 8);
    std::memcpy(cfg.lastCommand, from_hex("80B0000020").data(), 5);
    cfg.lastCommandLength = 5;
    cfg.lastStatusWord = 0x6A82;
    cfg.readBuffer = business_id;
    cfg.serverRoute = c.route;
    cfg.timestampCallback = now;
    cfg.monitorCallback = show;
    g_length = c.length;
    ASSERT_GE(tq_socket_connect(&cfg), 0);
    monitor_data_parse(&cfg, kWorkKey.data(), kNow - 56, -93001, 7, "sod", 0, nullptr, stick.data());
    tq_socket_close();
    const Bytes received = frame.get_future().get();
    if (c.record != nullptr) {
      EXPECT_EQ(g_record, c.record);
    }
    ASSERT_EQ(!received.empty(), c.sent) << c.length;
    if (!c.sent) continue;
    const Bytes payload = payload_of(received, 0x7219, static_cast<uint8_t>(0x70 + c.route), 0x19);
    EXPECT_EQ(hex(unseal(Bytes(payload.begin() + 16, payload.end()))),
              hex(plain_block(std::string(static_cast<size_t>(c.length), 'm'))));
  }
}

}  // namespace
