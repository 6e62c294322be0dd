#include "protocol/server_authentication.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "protocol/loopback_server.hpp"
#include "protocol/protocol_key.h"
#include "protocol/server_peer.hpp"
#include "protocol/tcp_transport.h"
#include "util/memory.h"

namespace {

using namespace test;

const Bytes kStick(16, 0xC5);

struct Key {
  uint32_t environment;
  const char* hex;
};
// The development keys; an unknown environment counts as 268.
const Key kKeys[] = {{268, "DE0E10900000000000000000DEC0D268"},
                     {52302, "DE0E109000000000000000DEC0D52302"},
                     {26814, "DE0E109000000000000000DEC0D26814"},
                     {1, "DE0E10900000000000000000DEC0D268"}};

SessionConfig config() {
  SessionConfig cfg{};
  std::memcpy(cfg.appid, "Abcdefghij0123456789", 20);
  std::memcpy(cfg.sn1, "device-1", 8);
  cfg.terId = 0x34;
  cfg.envIdCode = 268;
  cfg.timestampCallback = now;
  return cfg;
}

TEST(ProtocolKey, OfEachEnvironment) {
  for (const Key& c : kKeys) {
    Bytes key(16);
    EXPECT_EQ(TQ_getSm4PubulicKey(c.environment, key.data()), 16);
    EXPECT_EQ(hex(key), hex(from_hex(c.hex))) << c.environment;
  }
}

struct Request {
  const char* name;
  size_t device_length = 8;
  bool with_package = false;
  uint8_t reqid_version = 0;
  uint8_t route = 0;
  uint8_t auth_mode = 0;
  size_t key = 0;
};

// The request as the layout says, from the outside in.
Bytes expected_request(const Request& r, const SessionConfig& cfg) {
  const Bytes appid = from_text("Abcdefghij0123456789");
  const Bytes device(r.device_length, 'd');
  const Bytes digest = r.with_package ? Bytes(cfg.packageDigest, cfg.packageDigest + 32) : Bytes{};
  const Bytes full = from_hex("001034") + appid +
                     Bytes{uint8_t(r.reqid_version << 4 | (r.with_package ? 1 : 0))} + digest + Bytes{0x0F} +
                     kStick + Bytes{uint8_t(r.device_length)} + device + Bytes(16, 0xFF) + Bytes{0x02};
  const Bytes compact = Bytes{r.auth_mode, 0x10} + appid + Bytes{uint8_t(0x0F | r.reqid_version << 4)} +
                        Bytes{uint8_t(r.device_length)} + device;
  const Bytes block =
      seal(summed(r.auth_mode == 0 ? full : compact, 0), kRandomNow, folded_vector(kRandomNow));
  const Bytes protocol_key = from_hex(kKeys[r.key].hex);
  const Bytes envelope =
      seal(summed(from_hex("0013") + kRandomNow, 0), protocol_key, folded_vector(protocol_key));
  return request_frame(0x7500, Bytes{0x10} + appid + block + envelope, uint8_t(0x70 + r.route), 0xA8,
                       len(block) + 28);
}

TEST(ServerAuthentication, RequestByteForByte) {
  const Request cases[] = {
      {.name = "identity card"},
      {.name = "package and version", .with_package = true, .reqid_version = 1},
      {.name = "longest", .device_length = 68, .with_package = true, .route = 2, .key = 1},
      {.name = "no device id", .device_length = 0, .route = 1, .key = 2},
      {.name = "unknown environment", .device_length = 64, .key = 3},
      {.name = "compact", .reqid_version = 1, .auth_mode = 1},
      {.name = "compact, nothing", .device_length = 0, .auth_mode = 0x80},
  };
  for (const Request& r : cases) {
    SessionConfig cfg = config();
    std::memset(cfg.sn1, 'd', r.device_length);
    std::memset(cfg.sn1 + r.device_length, 0, sizeof cfg.sn1 - r.device_length);
    cfg.packageDigestSet = r.with_package;
    std::memset(cfg.packageDigest, 0xD1, 32);
    cfg.reqidVersion = r.reqid_version;
    cfg.serverRoute = r.route;
    cfg.authMode = r.auth_mode;
    cfg.envIdCode = kKeys[r.key].environment;
    const Bytes expected = expected_request(r, cfg);
    Bytes scratch(512), work_key(32), stick = kStick, out(expected.size());
    EXPECT_EQ(input_7500_group(&cfg, scratch.data(), work_key.data(), stick.data(), out.data(), len(out)),
              static_cast<int32_t>(expected.size()))
        << r.name;
    EXPECT_EQ(hex(out), hex(expected)) << r.name;
    EXPECT_EQ(hex(work_key), hex(kRandomNow + folded_vector(kRandomNow)));
    EXPECT_EQ(input_7500_group(&cfg, scratch.data(), work_key.data(), stick.data(), out.data(), len(out) - 1),
              -1);
  }
  SessionConfig cfg = config();
  std::memset(cfg.sn1, 'd', 68);
  cfg.sn2[0] = 'd';  // 69 bytes
  Bytes scratch(512), work_key(32), out(512);
  EXPECT_EQ(input_7500_group(&cfg, scratch.data(), work_key.data(), kStick.data(), out.data(), 512), -1);
}

const Bytes kSessionKey = from_hex("5E55104B5E55104B5E55104B5E55104B");
const Bytes kNewStick = from_hex("0F1E2D3C4B5A69788796A5B4C3D2E1F0");

// The decrypted answer; its length field and checksum are right unless the case says so.
Bytes answer_block(const Bytes& id, uint8_t flags, const Bytes& tail = {}) {
  const Bytes values = kSessionKey + Bytes{0x77, uint8_t(id.size())} + id + kNewStick + Bytes{flags};
  return summed(be(values.size() + 3 + tail.size(), 2) + values, 0) + tail;
}

struct Answer {
  int32_t code = 0;
  Bytes work_key = kWorkKey;
  Bytes stick = kStick;
  std::string id;  // "-" when none is kept
  uint8_t timing = 0;
};

Answer read_answer(const Bytes& frame, uint32_t command = 0x7500, uint8_t auth_mode = 0, uint8_t route = 0) {
  SessionConfig cfg = config();
  cfg.authMode = auth_mode;
  cfg.serverRoute = route;
  Answer a;
  const Bytes exact = exact_copy(frame, frame.size());
  a.code = output_7100_and_7500_analysis(&cfg, exact.data(), len(exact), command, a.work_key.data(),
                                         a.stick.data());
  a.id = cfg.readBuffer == nullptr ? "-" : reinterpret_cast<const char*>(cfg.readBuffer);
  a.timing = cfg.monitorTiming;
  tq_mem_free(cfg.readBuffer);
  return a;
}

Bytes answer_frame(const Bytes& payload, uint32_t parameter = 8, uint32_t command = 0x7500,
                   uint8_t header = 0x70) {
  return response_frame({.command = command, .payload = payload, .header = header, .parameter = parameter});
}

TEST(ServerAuthentication, AnswerIsTakenOver) {
  const std::string long_id(255, 'i');
  for (const std::string& id : {std::string(), std::string("BIZ-0123456789"), long_id}) {
    for (const uint32_t opaque : {0U, 1U, 40U}) {
      for (const uint8_t route : std::initializer_list<uint8_t>{0, 1, 2}) {
        const Bytes frame = answer_frame(Bytes(opaque, 0xAB) + seal(answer_block(from_text(id), 0x5F)),
                                         8 + opaque, 0x7500, uint8_t(0x70 + route));
        const Answer a = read_answer(frame, 0x7500, 0, route);
        EXPECT_EQ(a.code, 0) << id << opaque;
        EXPECT_EQ(hex(a.work_key), hex(kSessionKey + kVector));
        EXPECT_EQ(hex(a.stick), hex(kNewStick));
        EXPECT_EQ(a.id, id);
        EXPECT_EQ(a.timing, 5);
        EXPECT_EQ(read_answer(frame, 0x7500, 0, static_cast<uint8_t>(route == 0 ? 1 : 0)).code, -1);
      }
    }
  }
}

TEST(ServerAuthentication, DamagedAnswers) {
  const Bytes block = answer_block(from_text("BIZ"), 0x10);
  Bytes declares_less = block;
  --declares_less[1];
  Bytes id_too_long = block;
  id_too_long[19] = 0xFF;
  const Bytes sealed = seal(block);
  const struct {
    const char* name;
    Bytes frame;
    int32_t code;
  } cases[] = {
      {"error reply", response_frame({.command = 0xFFFF, .payload = sealed, .status = from_hex("003501")}),
       -3501},
      {"status", response_frame({.command = 0x7500, .payload = sealed, .status = from_hex("002005")}), -2005},
      {"7100 instead", answer_frame(sealed, 8, 0x7100), -1},
      {"opaque field takes all", answer_frame(sealed, 8 + len(sealed)), -1},
      {"opaque field takes more", answer_frame(sealed, 0xFFFF), -1},
      {"opaque field cuts a block", answer_frame(sealed, 9), -1},
      {"parameter 7", answer_frame(sealed, 7), -1},
      {"length declares one less", answer_frame(seal(declares_less)), -1},
      {"length declares less than is there", answer_frame(seal(block + Bytes{0})), -1},
      {"18 bytes", answer_frame(seal(summed(be(18, 2) + Bytes(15, 1), 0))), -1},
      {"only a key", answer_frame(seal(summed(be(19, 2) + Bytes(16, 1), 0))), -1},
      {"id past the end", answer_frame(seal(id_too_long)), -1},
      {"another key", answer_frame(seal(block, kVector, kKey)), -1},
      {"empty block", answer_frame(seal({})), -1},
  };
  for (const auto& c : cases) {
    const Answer a = read_answer(c.frame);
    EXPECT_EQ(a.code, c.code) << c.name;
    EXPECT_EQ(a.id, "-") << c.name;
    EXPECT_EQ(hex(a.stick), hex(kStick)) << c.name;
  }
  const Bytes frame = answer_frame(sealed);
  for (size_t n = 0; n < frame.size(); ++n) EXPECT_EQ(read_answer(exact_copy(frame, n)).code, -1) << n;
  // Key and stick-card id are in place when the checksum fails; the business id is released.
  Bytes wrong_sum = block;
  wrong_sum.back() ^= 0x80;
  const Bytes no_sum = be(block.size() - 1, 2) + Bytes(block.begin() + 2, block.end() - 1);
  for (const Bytes& damaged : {wrong_sum, no_sum}) {
    const Answer a = read_answer(answer_frame(seal(damaged)));
    EXPECT_EQ(a.code, -1);
    EXPECT_EQ(a.id, "-");
    EXPECT_EQ(hex(a.work_key) + hex(a.stick), hex(kSessionKey + kVector + kNewStick));
  }
}

TEST(ServerAuthentication, ShorterForms) {
  const Bytes old = summed(be(19, 2) + kSessionKey, 0);
  const Answer a = read_answer(answer_frame(seal(old), 8, 0x7100), 0x7100, 0, 2);  // its header is fixed
  EXPECT_EQ(a.code, 0);
  EXPECT_EQ(hex(a.work_key), hex(kSessionKey + kVector));
  EXPECT_EQ(hex(a.stick), hex(kStick));
  Bytes wrong = old;
  wrong.back() ^= 1;
  EXPECT_EQ(read_answer(answer_frame(seal(wrong), 8, 0x7100), 0x7100).code, -1);
  EXPECT_EQ(read_answer(answer_frame(seal(old), 8, 0x7100, 0x72), 0x7100, 0, 2).code, -1);

  const struct {
    const char* reply;
    int32_t code;
  } compact[] = {{"0000", 0}, {"0909", 9}, {"FFFF", 255}, {"0908", -1}, {"09", -1}, {"090909", -1}, {"", -1}};
  for (const auto& c : compact) {
    EXPECT_EQ(read_answer(answer_frame(seal(from_hex(c.reply))), 0x7500, 1).code, c.code) << c.reply;
  }
}

int64_t ticking() {
  static int64_t time = 0;
  return time += 25;
}

// The server answers in the fresh key of the request, as far as `answer` gives it a payload.
TEST(ServerAuthentication, WholeExchange) {
  const struct {
    const char* name;
    std::function<Bytes(const Bytes& fresh_key)> answer;
    int32_t code;
  } cases[] = {{"good",
                [](const Bytes& key) {
                  return answer_frame(seal(answer_block(from_text("BIZ"), 0), key, folded_vector(key)));
                },
                0},
               {"malformed", [](const Bytes&) { return answer_frame(Bytes(16, 1)); }, -35006},
               {"bytes beyond the frame",
                [](const Bytes& key) {
                  return answer_frame(seal(answer_block(from_text("BIZ"), 0), key, folded_vector(key))) +
                         Bytes{
                             0,
                         };
                },
                -35006},
               {"refused",
                [](const Bytes&) {
                  return response_frame({.command = 0xFFFF, .payload = {0}, .status = from_hex("003501")});
                },
                -3501},
               {"gone", [](const Bytes&) { return Bytes{}; }, -22003}};
  for (const auto& c : cases) {
    LoopbackServer server([&](const Peer& peer) {
      const Bytes request = peer.read_frame();
      const Bytes protocol_key = from_hex(kKeys[0].hex);
      const Bytes envelope(request.end() - 33, request.end() - 1);
      const Bytes opened = unseal(envelope, protocol_key, folded_vector(protocol_key));
      const Bytes answer = c.answer(Bytes(opened.begin() + 2, opened.begin() + 18));
      peer.write(answer);
      if (!answer.empty()) {
        EXPECT_EQ(hex(peer.read(1)), c.code == 0 ? "2a" : "");
      }
    });
    SessionConfig cfg = config();
    const SessionConfig address = server.config();
    std::memcpy(cfg.ip, address.ip, sizeof cfg.ip);
    cfg.port = address.port;
    cfg.timestampCallback = ticking;
    Bytes work_key(32), stick = kStick;
    uint32_t delay = 0;
    EXPECT_EQ(server_authentication(&cfg, work_key.data(), &delay, 0, stick.data()), c.code) << c.name;
    EXPECT_EQ(delay, c.code == -22003 ? 0U : 25U) << c.name;
    EXPECT_EQ(hex(stick), hex(c.code == 0 ? kNewStick : kStick)) << c.name;
    const uint8_t more = 0x2A;
    EXPECT_EQ(tq_socket_send(nullptr, &more, 1), c.code == 0 ? 1 : 0) << c.name;  // open after success only
    tq_socket_close();
    tq_mem_free(cfg.readBuffer);
  }
}

TEST(ServerAuthentication, EndsBeforeTheExchange) {
  LoopbackServer server([](const Peer& peer) { peer.wait_for_end(); });
  SessionConfig cfg = server.config();
  std::memset(cfg.sn1, 'd', 68);
  cfg.sn2[0] = 'd';
  Bytes work_key(32), stick = kStick;
  uint32_t delay = 0;
  EXPECT_EQ(server_authentication(&cfg, work_key.data(), &delay, 0, stick.data()), -33005);
  EXPECT_EQ(tq_socket_send(nullptr, stick.data(), 1), 0);
  cfg.ip[0] = '\0';
  EXPECT_EQ(server_authentication(&cfg, work_key.data(), &delay, 0, stick.data()), -20001);
}

}  // namespace
