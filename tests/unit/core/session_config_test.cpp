#include "core/config/session_config.h"

#include <gtest/gtest.h>

#include <cstring>

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

// Initialises a complete record anew; the code has to be everywhere where it is told.
void expect_init(const Arguments& arguments, int32_t code, const std::string& what) {
  SessionConfig cfg = complete_config();
  EXPECT_EQ(init(cfg, arguments), code) << what;
  EXPECT_EQ(cfg.lastError, code) << what;
  EXPECT_EQ(cfg.initDone, code == 0) << what;
  EXPECT_EQ(check_function_call(&cfg), code) << what;
}

TEST(ShareInit, Texts) {
  const struct {
    const char* Arguments::*argument;
    std::string text;
    int32_t code;
  } cases[] = {
      {&Arguments::appid, " \t ", -13003},
      {&Arguments::appid, "Abcdefghij\xC1" + std::string(9, '1'), -13003},
      {&Arguments::sn2, std::string(65, 's'), -13002},
      {&Arguments::sn3, std::string(65, 's'), -13002},
      {&Arguments::sn1, "a\x80", 0},
      {&Arguments::sn1, "a\x81", -13002},
      {&Arguments::sn1, " \t", 0},
      {&Arguments::ip, std::string(127, 'n'), 0},
      {&Arguments::ip, std::string(128, 'n'), -13009},
  };
  for (const auto& c : cases) {
    Arguments arguments;
    arguments.*c.argument = c.text.c_str();
    expect_init(arguments, c.code, c.text);
  }
  expect_init({.appid = "", .sn1 = "\xFF"}, -13003, "appid before serial numbers");
  expect_init({.chunk = 0, .sn3 = "\xFF"}, -13002, "serial numbers before ranges");
}

TEST(ShareInit, Ranges) {
  const struct {
    int32_t Arguments::*argument;
    std::vector<int32_t> good;
    std::vector<int32_t> bad;
  } cases[] = {
      {&Arguments::chunk, {1, 255}, {0, 256, -1}},
      {&Arguments::decode_mode, {0, 1}, {-1, 2}},
      {&Arguments::mode, {1, 2}, {0, 3}},
      {&Arguments::frame_flag, {0, 1}, {-1, 2}},
      {&Arguments::log_level, {0, 1, 2}, {-1, 3}},
      {&Arguments::port, {0, 65535}, {-1, 65536}},
      {&Arguments::environment, {52302, 26814}, {0, 267, 269}},
  };
  for (const auto& c : cases) {
    Arguments arguments;
    for (const auto& [values, code] : {std::pair(c.good, 0), std::pair(c.bad, -13009)}) {
      for (const int32_t value : values) {
        arguments.*c.argument = value;
        expect_init(arguments, code, std::to_string(value));
      }
    }
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

}  // namespace
