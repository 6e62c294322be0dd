#include "protocol/server_authentication.h"

#include <gtest/gtest.h>

#include "protocol/protocol_key.h"
#include "protocol/server_peer.hpp"
#include "util/memory.h"

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

const Bytes kAppid = from_text("Abcdefghij0123456789");
const Bytes kStick(16, 0xC5);

// The development keys; an unknown environment counts as 268.
const struct {
  uint32_t environment;
  Bytes key;
} kKeys[] = {{268, from_hex("DE0E10900000000000000000DEC0D268")},
             {52302, from_hex("DE0E109000000000000000DEC0D52302")},
             {26814, from_hex("DE0E109000000000000000DEC0D26814")},
             {1, from_hex("DE0E10900000000000000000DEC0D268")}};

TEST(ProtocolKey, OfEachEnvironment) {
  for (const auto& c : kKeys) {
    Bytes key(16);
    EXPECT_EQ(TQ_getSm4PubulicKey(c.environment, key.data()), 16);
    EXPECT_EQ(key, c.key) << c.environment;
  }
}

// Forms and sizes that a whole read does not come to; laid out from the outside in.
TEST(ServerAuthentication, RequestByteForByte) {
  const struct {
    uint8_t auth_mode;
    size_t device_length;
    uint8_t reqid_version;
    uint8_t route;
    size_t key;
  } cases[] = {{0, 68, 1, 1, 1}, {0, 0, 0, 2, 3}, {1, 8, 1, 0, 0}, {0x80, 0, 0, 0, 2}, {0, 69, 0, 0, 0}};
  for (const auto& c : cases) {
    SessionConfig cfg = config_with_device(c.device_length);
    std::copy(kAppid.begin(), kAppid.end(), cfg.appid);
    cfg.terId = 0x34;
    cfg.packageDigestSet = 1;
    std::fill_n(cfg.packageDigest, 32, uint8_t{0xD1});
    cfg.reqidVersion = c.reqid_version;
    cfg.serverRoute = c.route;
    cfg.authMode = c.auth_mode;
    cfg.envIdCode = kKeys[c.key].environment;

    const Bytes device = be(c.device_length, 1) + Bytes(c.device_length, 'd');
    const Bytes full = from_hex("001034") + kAppid + Bytes{uint8_t(c.reqid_version << 4 | 1)} +
                       Bytes(32, 0xD1) + Bytes{0x0F} + kStick + device + Bytes(16, 0xFF) + Bytes{0x02};
    const Bytes compact =
        Bytes{c.auth_mode, 0x10} + kAppid + Bytes{uint8_t(0x0F | c.reqid_version << 4)} + device;
    const Bytes block =
        seal(summed(c.auth_mode == 0 ? full : compact, 0), kRandomNow, folded_vector(kRandomNow));
    const Bytes envelope =
        seal(summed(from_hex("0013") + kRandomNow, 0), kKeys[c.key].key, folded_vector(kKeys[c.key].key));
    Bytes scratch(512), work_key(32), spare(512);
    const auto build = [&] {
      return input_7500_group(&cfg, scratch.data(), work_key.data(), kStick.data(), spare.data(), 512);
    };
    if (c.device_length <= 68) {
      EXPECT_GT(build(), 0);
      EXPECT_NE(hex(work_key), hex(kRandomNow + folded_vector(kRandomNow))) << "the clock alone is no secret";
    }
    {
      const WithSystemRandom none(SystemRandom::kNone);
      EXPECT_EQ(build(), -1);
    }
    const WithSystemRandom zeros(SystemRandom::kZeros);
    expect_built(
        [&](uint8_t* out, uint32_t room) {
          return input_7500_group(&cfg, scratch.data(), work_key.data(), kStick.data(), out, room);
        },
        c.device_length > 68 ? Bytes{}
                             : request_frame(0x7500, Bytes{0x10} + kAppid + block + envelope,
                                             uint8_t(0x70 + c.route), 0xA8, len(block) + 28));
    EXPECT_EQ(hex(work_key), hex(kRandomNow + folded_vector(kRandomNow)));
  }
}

const Bytes kSessionKey = from_hex("5E55104B5E55104B5E55104B5E55104B");
const Bytes kNewStick = from_hex("0F1E2D3C4B5A69788796A5B4C3D2E1F0");

// The decrypted answer; its length field and checksum are right.
Bytes answer_block(const Bytes& id, uint8_t flags) {
  const Bytes values = kSessionKey + Bytes{0x77, uint8_t(id.size())} + id + kNewStick + Bytes{flags};
  return summed(be(values.size() + 3, 2) + values, 0);
}

struct Answer {
  int32_t code = 0;
  Bytes work_key = kWorkKey;
  Bytes stick = kStick;
  std::string id;  // "-" when none is kept
  uint8_t timing = 0;
};

Answer read_answer(const Bytes& frame, uint32_t command = 0x7500, uint8_t auth_mode = 0, uint8_t route = 0) {
  SessionConfig cfg{};
  cfg.authMode = auth_mode;
  cfg.serverRoute = route;
  Answer a;
  a.code = output_7100_and_7500_analysis(&cfg, frame.data(), len(frame), command, a.work_key.data(),
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
  for (const std::string& id : {std::string(), std::string("BIZ-0123456789"), std::string(255, 'i')}) {
    for (const uint32_t opaque : {0U, 1U, 40U}) {
      for (const uint8_t route : {uint8_t{0}, uint8_t{1}, uint8_t{2}}) {
        const Bytes payload = Bytes(opaque, 0xAB) + seal(answer_block(from_text(id), 0x5F));
        const Bytes frame = answer_frame(payload, 8 + opaque, 0x7500, uint8_t(0x70 + route));
        const Answer a = read_answer(frame, 0x7500, 0, route);
        EXPECT_EQ(a.code, 0) << id << opaque;
        EXPECT_EQ(hex(a.work_key + a.stick), hex(kSessionKey + kVector + kNewStick));
        EXPECT_EQ(a.id, id);
        EXPECT_EQ(a.timing, 5);
        EXPECT_EQ(read_answer(frame, 0x7500, 0, static_cast<uint8_t>(route == 0 ? 1 : 0)).code, -1);
      }
    }
  }
}

TEST(ServerAuthentication, DamagedAnswers) {
  const Bytes block = answer_block(from_text("BIZ"), 0x10);
  const Bytes inside = slice(block, 2, block.size());
  Bytes id_too_long = block;
  id_too_long[19] = 0xFF;
  const Bytes sealed = seal(block);
  const struct {
    const char* name;
    Bytes frame;
  } cases[] = {
      {"7100 instead", answer_frame(sealed, 8, 0x7100)},
      {"opaque field takes all", answer_frame(sealed, 8 + len(sealed))},
      {"opaque field cuts a block", answer_frame(sealed, 9)},
      {"parameter 7", answer_frame(sealed, 7)},
      {"length declares one less", answer_frame(seal(be(block.size() - 1, 2) + inside))},
      {"18 bytes", answer_frame(seal(summed(be(18, 2) + Bytes(15, 1), 0)))},
      {"only a key", answer_frame(seal(summed(be(19, 2) + Bytes(16, 1), 0)))},
      {"id past the end", answer_frame(seal(id_too_long))},
      {"empty block", answer_frame(seal({}))},
      {"NUL in the business id", answer_frame(seal(answer_block({'B', 0, 'Z'}, 0x10)))},
  };
  for (const auto& c : cases) {
    const Answer a = read_answer(c.frame);
    EXPECT_EQ(a.code, -1) << c.name;
    EXPECT_EQ(a.id + hex(a.stick), "-" + hex(kStick)) << c.name;
  }
  // Key and stick-card id are in place when the checksum fails; the business id is released.
  Bytes wrong_sum = block;
  wrong_sum.back() ^= 0x80;
  const Bytes no_sum = be(block.size() - 1, 2) + exact_copy(inside, inside.size() - 1);
  for (const Bytes& damaged : {wrong_sum, no_sum}) {
    const Answer a = read_answer(answer_frame(seal(damaged)));
    EXPECT_EQ(a.code, -1);
    EXPECT_EQ(a.id, "-");
    EXPECT_EQ(hex(a.work_key + a.stick), hex(kSessionKey + kVector + kNewStick));
  }
}

TEST(ServerAuthentication, ShorterForms) {
  const Bytes old = summed(be(19, 2) + kSessionKey, 0);
  const Answer a = read_answer(answer_frame(seal(old), 8, 0x7100), 0x7100, 0, 2);  // its header is fixed
  EXPECT_EQ(a.code, 0);
  EXPECT_EQ(hex(a.work_key + a.stick), hex(kSessionKey + kVector + kStick));
  Bytes wrong = old;
  wrong.back() ^= 1;
  EXPECT_EQ(read_answer(answer_frame(seal(wrong), 8, 0x7100), 0x7100).code, -1);
  EXPECT_EQ(read_answer(answer_frame(seal(old), 8, 0x7100, 0x72), 0x7100, 0, 2).code, -1);

  const std::pair<const char*, int32_t> compact[] = {{"0000", 0}, {"FFFF", 255},  {"0908", -1},
                                                     {"09", -1},  {"090909", -1}, {"", -1}};
  for (const auto& [reply, code] : compact)
    EXPECT_EQ(read_answer(answer_frame(seal(from_hex(reply))), 0x7500, 1).code, code) << reply;
}

}  // namespace
