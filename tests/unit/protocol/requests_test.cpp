// Requests at the borders that no whole read comes to: where they just fit, their longest texts, and forms
// that no read selects.
#include <gtest/gtest.h>

#include "core/config/session_config.h"
#include "protocol/card_auth.h"
#include "protocol/command_frame.h"
#include "protocol/data_decode.h"
#include "protocol/monitor_report.h"
#include "protocol/protocol_key.h"
#include "protocol/secret_frame.h"
#include "protocol/server_authentication.h"
#include "protocol/server_peer.hpp"

test::SystemRandom test::g_system_random = SystemRandom::kReal;

extern "C" ssize_t __real_getrandom(void* out, size_t n, unsigned flags);
extern "C" ssize_t __wrap_getrandom(void* out, size_t n, unsigned flags);
ssize_t __wrap_getrandom(void* out, size_t n, unsigned flags) {
  if (test::g_system_random == test::SystemRandom::kReal) return __real_getrandom(out, n, flags);
  if (test::g_system_random == test::SystemRandom::kNone) return -1;
  std::memset(out, 0, n);
  return static_cast<ssize_t>(n);
}

namespace {

using namespace test;

TEST(Requests, Frames) {
  const Bytes longest(65524, 0xA5);
  const struct {
    uint32_t command;
    Bytes payload;
    uint8_t header;
    Bytes frame;
  } cases[] = {
      {0x5012, {0x5A}, 0x70, from_hex("70 000C 5012 00 09 2345 AA 5A E3")},
      {0x6113, {}, 0x72, from_hex("72 000B 6113 00 09 2345 AA 9A")},
      {0x7202, {}, 0x70, from_hex("70 0000000D 7202 00 09 2345 AA 9C")},
      {0x5001, {1}, 0x93, from_hex("93 000C 5001 00 01 2345 AA 01 71")},
      {0x5001, longest, 0x70, request_frame(0x5001, longest, 0x70, 0xAA, 0x2345)},
      {0x5001, longest + Bytes(1), 0x70, {}},
  };
  for (const auto& c : cases) {
    expect_built(
        [&](uint8_t* out, uint32_t room) {
          return input_command_group(c.payload.data(), len(c.payload), c.header, c.command, 0x12345, 0xAA,
                                     out, room);
        },
        c.frame);
  }
  EXPECT_EQ(check_sum_group(Bytes(1 << 20, 0xFF).data(), 1 << 20), 0xFFU << 20);
  for (const uint32_t command : {0x5001U, 0x7202U}) {
    for (const uint32_t n : {0U, 1U, 4U, 5U, 6U, 22U, 500U}) {
      const Bytes data(n, 0xC3);
      Bytes out(n + 28);  // more than it needs, now and then
      const auto build = [&](uint32_t room) {
        return input_secret_command_group(data.data(), n, command, kWorkKey.data(), out.data(), room);
      };
      EXPECT_EQ(text_of(build(len(out)), out), n == 0 ? "-1" : hex(seal(secret_frame(command, data))));
      EXPECT_EQ(build(n + 27), -1);
    }
  }
}

// The development keys; an unknown environment counts as 268.
const std::pair<uint32_t, Bytes> kKeys[] = {{268, from_hex("DE0E10900000000000000000DEC0D268")},
                                            {52302, from_hex("DE0E109000000000000000DEC0D52302")},
                                            {26814, from_hex("DE0E109000000000000000DEC0D26814")},
                                            {1, from_hex("DE0E10900000000000000000DEC0D268")}};

TEST(Requests, Authentication) {
  const Bytes appid = from_text("Abcdefghij0123456789");
  const Bytes stick(16, 0xC5);
  const struct {
    uint8_t auth_mode;
    size_t device_length;
    uint8_t reqid_version;
    uint8_t route;
    size_t key;
  } cases[] = {{0, 68, 1, 1, 1}, {0, 0, 0, 2, 3}, {1, 8, 1, 0, 0}, {0x80, 0, 0, 0, 2}, {0, 69, 0, 0, 0}};
  for (const auto& c : cases) {
    SessionConfig cfg = config_with_device(c.device_length);
    std::copy(appid.begin(), appid.end(), cfg.appid);
    cfg.terId = 0x34;
    cfg.packageDigestSet = 1;
    std::fill_n(cfg.packageDigest, 32, uint8_t{0xD1});
    cfg.reqidVersion = c.reqid_version;
    cfg.serverRoute = c.route;
    cfg.authMode = c.auth_mode;
    const auto& [environment, key] = kKeys[c.key];
    cfg.envIdCode = environment;

    const Bytes device = be(c.device_length, 1) + Bytes(c.device_length, 'd');
    const Bytes full = from_hex("001034") + appid + Bytes{uint8_t(c.reqid_version << 4 | 1)} +
                       Bytes(32, 0xD1) + Bytes{0x0F} + stick + device + Bytes(16, 0xFF) + Bytes{0x02};
    const Bytes compact =
        Bytes{c.auth_mode, 0x10} + appid + Bytes{uint8_t(0x0F | c.reqid_version << 4)} + device;
    const Bytes block =
        seal(summed(c.auth_mode == 0 ? full : compact, 0), kRandomNow, folded_vector(kRandomNow));
    const Bytes envelope = seal(summed(from_hex("0013") + kRandomNow, 0), key, folded_vector(key));
    const Bytes frame = request_frame(0x7500, Bytes{0x10} + appid + block + envelope, uint8_t(0x70 + c.route),
                                      0xA8, len(block) + 28);
    Bytes scratch(512), work_key(32);
    const auto build = [&](uint8_t* out, uint32_t room) {
      return input_7500_group(&cfg, scratch.data(), work_key.data(), stick.data(), out, room);
    };
    {
      const WithSystemRandom zeros(SystemRandom::kZeros);  // which leave the documented generator's bytes
      expect_built(build, c.device_length > 68 ? Bytes{} : frame);
      EXPECT_EQ(hex(work_key), hex(kRandomNow + folded_vector(kRandomNow)));
    }
    Bytes spare(512);
    EXPECT_EQ(build(spare.data(), 512), c.device_length > 68 ? -1 : static_cast<int32_t>(frame.size()));
    EXPECT_NE(hex(exact_copy(work_key, 16)), hex(kRandomNow)) << "the clock alone is no secret";
    const WithSystemRandom none(SystemRandom::kNone);
    EXPECT_EQ(build(spare.data(), 512), -1);
    EXPECT_EQ(hex(exact_copy(work_key, 16)), hex(Bytes(16)));
  }
}

TEST(Requests, CardAuthentication) {
  const WithSystemRandom zeros(SystemRandom::kZeros);
  const auto expect_request = [](size_t device, uint32_t command, const Bytes& card, const Bytes& data) {
    SessionConfig cfg = config_with_device(device);
    expect_built(
        [&](uint8_t* out, uint32_t room) {
          return input_auth_cmd_group(&cfg, card.data(), len(card), command, kWorkKey.data(), out, room);
        },
        data.empty() ? Bytes{} : request_frame(command, seal(secret_frame(command, data))));
  };
  const Bytes card(32, 0x4D);
  expect_request(68, 0x5001, card,
                 exact_copy(kRandomNow, 4) + be(68, 1) + Bytes(68, 'd') + from_hex("01 12 10 20") + card);
  expect_request(69, 0x5001, card, {});
  for (const size_t n : {0, 7, 8, 9, 17, 18, 19, 31, 33}) {
    const Bytes part(n, 0x4D);
    expect_request(0, 0x5001, part, {});
    expect_request(69, 0x5032, part, n == 8 || n == 18 ? part + from_hex("9000") : Bytes{});
  }
}

TEST(Requests, FilesHaveTheirExactSizes) {
  const size_t sizes[] = {32, 214, 256, 1024};
  for (const uint32_t command : {0x6002U, 0x6102U, 0x6113U, 0x6003U}) {
    for (const size_t wrong : {0U, 1U, 2U, 3U, 4U}) {
      for (const size_t change : {size_t{1}, size_t(-1)}) {
        Bytes files[4];
        for (size_t i = 0; i < 4; ++i) files[i].assign(sizes[i] + (i == wrong ? change : 0), 0x5A);
        const auto build = [&](uint32_t room, const TqTiming* timing) {
          Bytes out(room);
          return input_data_decode_group(files[0].data(), len(files[0]), files[1].data(), len(files[1]),
                                         files[2].data(), len(files[2]), files[3].data(), len(files[3]),
                                         command, kWorkKey.data(), out.data(), room, timing);
        };
        const bool refused = command == 0x6003 || (wrong < 4 && (command == 0x6113) == (wrong == 3));
        const int32_t size = command == 0x6002 ? 539 : command == 0x6102 ? 603 : 1115;
        const TqTiming timing{};
        EXPECT_EQ(build(1115, &timing), refused ? -1 : size) << command << " " << wrong;
        EXPECT_EQ(build(static_cast<uint32_t>(size - 1), &timing), -1);
        EXPECT_EQ(build(1115, nullptr), refused || command != 0x6002 ? -1 : size);
      }
    }
  }
}

TEST(Requests, MonitorReport) {
  const Bytes prefix = from_hex("101112131415161718191A1B1C1D1E1F");
  for (const size_t n : {0, 1, 12, 13, 14, 2000, 65489, 65490}) {
    for (const uint8_t route : {TQ_ROUTE_ONE, TQ_ROUTE_PASSPORT}) {
      const Bytes text(n, 'j');
      const uint8_t* const given = route == TQ_ROUTE_PASSPORT ? prefix.data() : nullptr;
      SessionConfig cfg{};
      cfg.serverRoute = route;
      const Bytes payload = (given != nullptr ? prefix : Bytes(16)) + seal(summed(be(n + 3, 2) + text, 0));
      expect_built(
          [&](uint8_t* out, uint32_t room) {
            return input_7219_group(&cfg, reinterpret_cast<const char*>(text.data()), len(text),
                                    kWorkKey.data(), out, room, given);
          },
          n > 65489 ? Bytes{} : request_frame(0x7219, payload, uint8_t(0x70 + route), 0x19));
    }
  }
  static int card_type;
  SessionConfig cfg{};
  cfg.serverRoute = TQ_ROUTE_ONE;  // which no read selects
  cfg.monitorCallback = [](const monitor_param* record, char*, uint32_t) {
    card_type = record->card_type;
    return -1;  // nothing to send
  };
  monitor_data_parse(&cfg, kWorkKey.data(), 0, 0, 0, nullptr, 0, nullptr, kKey.data());
  EXPECT_EQ(card_type, 2);
}

}  // namespace
