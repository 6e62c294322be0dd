#include "protocol/monitor_report.h"

#include <gtest/gtest.h>

#include "protocol/server_peer.hpp"

namespace {

using namespace test;

TEST(MonitorReport, RequestByteForByte) {
  const Bytes prefix = from_hex("101112131415161718191A1B1C1D1E1F");
  for (const size_t n : {0, 1, 12, 13, 14, 2000, 65489, 65490}) {
    for (const uint8_t route : {TQ_ROUTE_ONE, TQ_ROUTE_PASSPORT}) {
      const Bytes text(n, 'j');
      const bool has_prefix = route == TQ_ROUTE_PASSPORT;
      SessionConfig cfg{};
      cfg.serverRoute = route;
      const auto build = [&](uint8_t* out, uint32_t room) {
        return input_7219_group(&cfg, reinterpret_cast<const char*>(text.data()), len(text), kWorkKey.data(),
                                out, room, has_prefix ? prefix.data() : nullptr);
      };
      const Bytes payload = (has_prefix ? prefix : Bytes(16)) + seal(summed(be(n + 3, 2) + text, 0));
      expect_built(build, n > 65489 ? Bytes{} : request_frame(0x7219, payload, uint8_t(0x70 + route), 0x19));
    }
  }
}

TEST(MonitorReport, CardTypeOfEachRoute) {
  static int64_t type = -1;
  const std::pair<uint8_t, int64_t> cases[] = {{TQ_ROUTE_ONE, 2}, {TQ_ROUTE_PASSPORT, 1}, {0, 0}};
  for (const auto& [route, expected] : cases) {
    SessionConfig cfg{};
    cfg.serverRoute = route;
    cfg.monitorCallback = [](const monitor_param* record, char*, uint32_t) {
      type = record->card_type;
      return -1;  // nothing to send
    };
    monitor_data_parse(&cfg, kWorkKey.data(), 0, 0, 0, nullptr, 0, nullptr, kKey.data());
    EXPECT_EQ(type, expected);
  }
}

}  // namespace
