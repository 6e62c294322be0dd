#include "protocol/card_auth.h"

#include <gtest/gtest.h>

#include <cstring>

#include "protocol/server_peer.hpp"

namespace {

using namespace test;

SessionConfig config(size_t device_length) {
  SessionConfig cfg{};
  std::memset(reinterpret_cast<char*>(&cfg) + offsetof(SessionConfig, sn1), 'd', device_length);
  cfg.timestampCallback = now;
  cfg.decodeMode = 1;
  cfg.readMode = 0;
  cfg.frameFlag = 1;
  cfg.queryInfo[0] = 2;
  cfg.queryInfo[1] = 1;
  cfg.queryInfo[2] = 0;
  return cfg;
}

std::string build(SessionConfig& cfg, uint32_t command, const Bytes& card,
                  uint32_t capacity = TQ_CARD_AUTH_BUFFER) {
  const Bytes exact = exact_copy(card, card.size());
  Bytes out(capacity);
  const int32_t rc =
      input_auth_cmd_group(&cfg, exact.data(), len(exact), command, kWorkKey.data(), out.data(), capacity);
  return rc < 0 ? std::to_string(rc) : hex(out.data(), static_cast<size_t>(rc));
}

TEST(CardAuth, FirstRequestByteForByte) {
  const Bytes card(32, 0x4D);
  for (const size_t device : {size_t{0}, size_t{8}, size_t{64}, size_t{68}}) {
    SessionConfig cfg = config(device);
    const Bytes data = exact_copy(kRandomNow, 4) + Bytes{uint8_t(device)} + Bytes(device, 'd') +
                       from_hex("01 12 10 20") + card;
    ASSERT_EQ(data.size(), device + 41);
    const Bytes expected = request_frame(0x5001, seal(secret_frame(0x5001, data)));
    EXPECT_EQ(build(cfg, 0x5001, card), hex(expected)) << device;
    EXPECT_EQ(build(cfg, 0x5001, card, len(expected)), hex(expected));
    EXPECT_EQ(build(cfg, 0x5001, card, len(expected) - 1), "-1");
  }
  SessionConfig too_long = config(69);
  EXPECT_EQ(build(too_long, 0x5001, card), "-1");
  SessionConfig other = config(0);
  other.decodeMode = 0;
  other.readMode = 1;
  other.frameFlag = 0;
  other.queryInfo[2] = 1;
  const Bytes data = exact_copy(kRandomNow, 4) + from_hex("00 10 02 11 20") + card;
  EXPECT_EQ(build(other, 0x5001, card), hex(request_frame(0x5001, seal(secret_frame(0x5001, data)))));
}

TEST(CardAuth, LaterRequestsByteForByte) {
  for (const uint32_t command : {0x5001U, 0x5012U, 0x5022U, 0x5032U}) {
    for (const size_t n : {0, 7, 8, 9, 17, 18, 19, 31, 32, 33}) {
      SessionConfig cfg = config(69);  // only the first request carries the device id
      const Bytes card(n, 0x4D);
      const bool good = command != 0x5001 && (n == 8 || n == 18);
      const Bytes expected = request_frame(command, seal(secret_frame(command, card + from_hex("9000"))));
      EXPECT_EQ(build(cfg, command, card), good ? hex(expected) : "-1") << command << " " << n;
    }
  }
}

TEST(CardAuth, AnswersForTheCard) {
  const Bytes eight = from_hex("A1A2A3A4A5A6A7A8");
  const struct {
    uint32_t command;
    uint32_t inner;
    Bytes data;
    std::string result;
    uint32_t least_room;
  } cases[] = {
      {0x5001, 0x5001, eight, "008800520af000a1a2a3a4a5a6a7a8", 15},
      {0x5022, 0x5022, eight, "008200520af001a1a2a3a4a5a6a7a8", 15},
      {0x5032, 0x5022, eight, "008200520af001a1a2a3a4a5a6a7a8", 15},
      {0x5012, 0x5012, from_hex("0084000008"), "0084000008", 5},
      {0x5012, 0x5012, Bytes(23, 0x88), hex(Bytes(23, 0x88)), 23},
      {0x5032, 0x5032, eight, "-1", 0},
      {0x5022, 0x5032, eight, "-1", 0},
      {0x5012, 0x5012, {}, "-1", 0},
  };
  const auto open = [](const Bytes& frame, uint32_t command, uint32_t capacity) {
    const Bytes exact = exact_copy(frame, frame.size());
    Bytes out(capacity);
    const int32_t rc =
        output_auth_cmd_analysis(exact.data(), len(exact), command, kWorkKey.data(), out.data(), capacity);
    return rc < 0 ? std::to_string(rc) : hex(out.data(), static_cast<size_t>(rc));
  };
  for (const auto& c : cases) {
    const Bytes frame =
        response_frame({.command = c.command, .payload = seal(secret_frame(c.inner, c.data))});
    EXPECT_EQ(open(frame, c.command, 260), c.result) << c.command;
    if (c.least_room != 0) {
      EXPECT_EQ(open(frame, c.command, c.least_room), c.result) << c.command;
      EXPECT_EQ(open(frame, c.command, c.least_room - 1), "-1") << c.command;
      for (size_t n = 0; n < frame.size(); ++n) EXPECT_EQ(open(exact_copy(frame, n), c.command, 260), "-1");
      Bytes in_place = frame + Bytes(16, 0);
      EXPECT_EQ(output_auth_cmd_analysis(in_place.data(), len(frame), c.command, kWorkKey.data(),
                                         in_place.data(), len(in_place)),
                static_cast<int32_t>(c.result.size() / 2));
      EXPECT_EQ(hex(in_place.data(), c.result.size() / 2), c.result);
    }
    const Bytes refusal =
        response_frame({.command = c.command, .payload = {0}, .parameter = 0, .status = from_hex("001301")});
    EXPECT_EQ(open(refusal, c.command, 260), "-1301");
  }
}

}  // namespace
