#include "core/config/session_config.h"

#include <gtest/gtest.h>

#include <cstring>

#include "core/config/device_values.h"
#include "core/config/text_checks.h"
#include "support/bytes.hpp"

namespace {

using namespace test;

const std::string kAppid = "Abcdefghij0123456789";

// The arguments of share_init; good ones unless a test says otherwise.
struct Arguments {
  const char* appid = kAppid.c_str();
  int32_t chunk = 212;
  int32_t decode_mode = 1;
  int32_t mode = 1;
  int32_t frame_flag = 1;
  int32_t log_level = 2;
  int32_t environment = 268;
  const char* sn1 = " sn-1\t";
  const char* sn2 = nullptr;
  const char* sn3 = "";
  const char* package = "com.example.reader";
  int32_t terminal = 0x1234;
  const char* ip = "127.0.0.1";
  int32_t port = 65535;
};

int32_t init(SessionConfig& cfg, const Arguments& a) {
  return share_init(&cfg, a.appid, a.chunk, a.decode_mode, a.mode, a.frame_flag, a.log_level, a.environment,
                    a.sn1, a.sn2, a.sn3, a.package, a.terminal, a.ip, a.port);
}

SessionConfig complete_config(int32_t mode = 1) {
  SessionConfig cfg{};
  EXPECT_EQ(init(cfg, {.mode = mode}), 0);
  share_register_card_callback(
      &cfg, [](const uint8_t*, uint32_t, uint8_t, void*) { return 0; }, nullptr);
  share_register_monitor_callback(&cfg, [](const monitor_param*, char*, uint32_t) { return -1; });
  share_register_timestamp_callback(&cfg, [] { return INT64_MIN; });
  share_register_result_callback(&cfg, [](info_data*) {});
  return cfg;
}

TEST(ShareInit, LeavesNothingOfWhatStoodThereBefore) {
  SessionConfig cfg;
  std::memset(&cfg, 0xEE, sizeof cfg);
  ASSERT_EQ(init(cfg, {.sn1 = "sn", .package = "", .terminal = -2}), 0);
  EXPECT_EQ(hex(cfg.appid, 32), hex(from_text(kAppid) + Bytes(12)));
  EXPECT_EQ(std::string(cfg.sn1, 204), "sn" + std::string(202, '\0'));
  EXPECT_EQ(std::string(cfg.ip, 128), "127.0.0.1" + std::string(119, '\0'));
  EXPECT_EQ(
      hex(Bytes{cfg.terId, cfg.packageDigestSet, cfg.reqidVersion, cfg.queryInfoPending, cfg.queryInfo[0],
                cfg.queryInfo[1], cfg.queryInfo[2], cfg.lastCommandLength, cfg.lastCommand[31]}),
      "fe0000000100000000");
}

// What initSdk passes on is tried from there; here is the rest, and the order.
TEST(ShareInit, WhatTheModuleDoesNotPassOn) {
  const std::string too_long(65, 's');
  const std::string longest_name(127, 'n');
  const std::string no_name(128, 'n');
  const std::pair<Arguments, int32_t> cases[] = {
      {{.chunk = 1}, 0},
      {{.chunk = 255}, 0},
      {{.chunk = 0}, -13009},
      {{.chunk = 256}, -13009},
      {{.frame_flag = 0}, 0},
      {{.frame_flag = 2}, -13009},
      {{.frame_flag = -1}, -13009},
      {{.log_level = 0}, 0},
      {{.log_level = 3}, -13009},
      {{.log_level = -1}, -13009},
      {{.port = -1}, -13009},
      {{.sn1 = "a\x80"}, 0},
      {{.sn1 = "a\x81"}, -13002},
      {{.sn1 = " \t"}, 0},
      {{.sn2 = too_long.c_str()}, -13002},
      {{.sn3 = too_long.c_str()}, -13002},
      {{.ip = longest_name.c_str()}, 0},
      {{.ip = no_name.c_str()}, -13009},
      {{.appid = " \t "}, -13003},
      {{.appid = "", .sn1 = "\xFF"}, -13003},
      {{.chunk = 0, .sn3 = "\xFF"}, -13002},
  };
  for (const auto& [arguments, code] : cases) {
    SessionConfig cfg = complete_config();
    EXPECT_EQ(init(cfg, arguments), code);
    EXPECT_EQ(cfg.lastError, code);
    EXPECT_EQ(cfg.initDone, code == 0);
    EXPECT_EQ(check_function_call(&cfg), code);
  }
}

TEST(ShareInit, AFailureKeepsWhatWasStoredBeforeIt) {
  SessionConfig cfg{};
  EXPECT_EQ(init(cfg, {.environment = 7}), -13009);
  EXPECT_EQ(cfg.readChunkSize, 0);
  EXPECT_STREQ(cfg.sn1, "sn-1");
  EXPECT_EQ(init(cfg, {.environment = 26814, .port = 70000}), -13009);
  EXPECT_EQ(cfg.envIdCode, 26814U);
  EXPECT_STREQ(cfg.ip, "127.0.0.1");
}

TEST(QueryInfo, Rules) {
  const struct {
    int32_t mode;
    uint32_t a, b, c;
    int32_t code;
  } cases[] = {
      {1, 1, 0, 0, 0},      {1, 2, 1, 0, 0},
      {1, 0, 0, 0, -16303}, {1, 0, 0, 1, -16303},
      {1, 1, 0, 1, -16304}, {1, 3, 0, 0, -13009},
      {1, 1, 2, 0, -13009}, {1, 0, 0, 2, -13009},
      {2, 0, 0, 0, 0},      {2, 0, 1, 1, 0},
      {2, 2, 1, 0, 0},      {2, 1, 0, 1, -16305},
      {2, 2, 1, 1, -16305}, {2, UINT32_MAX, 0, 0, -13009},
  };
  for (const auto& c : cases) {
    SessionConfig cfg = complete_config(c.mode);
    EXPECT_EQ(share_setQueryInfoParameterWithCardInfoState(&cfg, c.a, c.b, c.c), c.code);
    const Bytes given = {uint8_t(c.a), uint8_t(c.b), uint8_t(c.c)};
    EXPECT_EQ(hex(cfg.queryInfo, 3), hex(c.code == 0 ? given : Bytes{1, 0, 0}));
    EXPECT_EQ(check_function_call(&cfg), c.code);
    EXPECT_EQ(share_setQueryInfoParameterWithCardInfoState(&cfg, c.mode == 1 ? 1 : 0, 0, 0), 0);
    EXPECT_EQ(check_function_call(&cfg), 0);  // a good call lifts the refusal
  }
  SessionConfig cfg{};
  EXPECT_EQ(share_setQueryInfoParameterWithCardInfoState(&cfg, 1, 0, 0), -13008);
  EXPECT_EQ(cfg.lastError, -13008);
}

TEST(SessionConfig, ReqidVersionAndTexts) {
  SessionConfig cfg{};
  const struct {
    int32_t version;
    int32_t code;
    int stored;
  } cases[] = {{1, 0, 1}, {2, -13009, 1}, {-1, -13009, 1}, {0, 0, 0}};
  for (const auto& c : cases) {
    EXPECT_EQ(share_set_reqid_version(&cfg, c.version), c.code);
    EXPECT_EQ(cfg.reqidVersion, c.stored);
  }
  EXPECT_STREQ(share_getVersion(), "1.0.6");
  std::vector<char> text(21);  // exactly what the longest number needs
  EXPECT_EQ(getNowTimestemp_String(&cfg, text.data()), -1);
  cfg = complete_config();
  EXPECT_EQ(getNowTimestemp_String(&cfg, text.data()), 20);
  EXPECT_STREQ(text.data(), "-9223372036854775808");
}

TEST(TextChecks, CurrentCheck) {
  const struct {
    const char* text;
    uint32_t limit;
    int32_t code;
    const char* copied;
  } cases[] = {{nullptr, 5, -13008, ""},       {"", 5, -13008, ""},       {"  ", 5, 0, ""},
               {"\t abcde \t", 5, 0, "abcde"}, {"abcdef", 5, -13009, ""}, {"a\x80", 5, 0, "a\x80"},
               {"a\x81", 5, -13009, ""},       {"a \tb", 5, 0, "a \tb"},  {"a", 0, -13009, ""}};
  for (const auto& c : cases) {
    char out[6] = {};
    EXPECT_EQ(current_check(c.text, out, c.limit), c.code) << c.copied;
    EXPECT_STREQ(out, c.copied);
  }
}

int64_t g_now = 0;

// state = time mod 10^9; state = state * 214013 + 2531011; the byte comes from its upper part.
TEST(RandomNumber, KnownSequences) {
  const struct {
    int64_t time;
    const char* bytes;
  } cases[] = {
      {0, "2645498eb943cd9bfa0cf3327a1a896f"},
      {1'700'000'123'456, "207bcdcf38df80ec3f3894aac023b88b"},
      {999'999'999, "43f2c0bb6d2f6ce12df1e3684e8e5033"},
      {1'000'000'000, "2645498eb943cd9bfa0cf3327a1a896f"},
      {-1'000'000'001, "239f3bb0c6dc9996baa7880629b703f1"},
      {INT64_MIN, "aee8a88d64c9a8c066bb1347e8498d2d"},
  };
  SessionConfig cfg{};
  cfg.timestampCallback = [] { return g_now; };
  for (const auto& c : cases) {
    g_now = c.time;
    Bytes out(16);
    EXPECT_EQ(create_rand_number(&cfg, out.data(), 16), c.time);
    EXPECT_EQ(hex(out), c.bytes) << c.time;
  }
  Bytes untouched(1, 0xEE);
  for (const int32_t n : {0, -1, INT32_MIN}) create_rand_number(&cfg, untouched.data(), n);
  EXPECT_EQ(untouched[0], 0xEE);
  cfg.timestampCallback = nullptr;
  EXPECT_EQ(create_rand_number(&cfg, untouched.data(), 1), 0);
  EXPECT_EQ(untouched[0], 0x26);
}

TEST(DeviceId, FitsOrFails) {
  const struct {
    size_t length;
    uint32_t capacity;
    int32_t result;
  } cases[] = {{0, 0, 0},    {1, 1, 1},    {64, 68, 64}, {64, 64, 64},
               {64, 63, -1}, {68, 68, 68}, {69, 68, -1}, {204, 68, -1}};
  for (const auto& c : cases) {
    SessionConfig cfg{};
    // A text longer than its field runs on into the next ones.
    std::memset(reinterpret_cast<char*>(&cfg) + offsetof(SessionConfig, sn1), 's', c.length);
    std::string out(c.capacity + size_t{1}, '#');
    EXPECT_EQ(tq_get_device_id(&cfg, out.data(), c.capacity), c.result) << c.length;
    const size_t written = c.result < 0 ? 0 : c.length;
    EXPECT_EQ(out, std::string(written, 's') + std::string(out.size() - written, '#')) << c.length;
  }
}

}  // namespace
