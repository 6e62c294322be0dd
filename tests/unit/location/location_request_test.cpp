// Edges of the exported functions; requests and answers themselves are tried against the location server.
#include "location/location_request.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "core/config/device_values.h"
#include "location/https_exchange.h"
#include "location/location_values.h"
#include "support/bytes.hpp"

namespace {

using namespace test;

int64_t g_now = 0;
int64_t now() {
  return g_now;
}

TEST(LocationRequest, TextChecks) {
  for (size_t len = 0; len < 70; ++len) {
    const std::string text(len, 'x');
    EXPECT_EQ(scp_appid_check(text.c_str()), len == 7 || len == 20 ? 0 : -1) << len;
    EXPECT_EQ(scp_manufacturers_check(text.c_str()), len <= 64 ? 0 : -1) << len;
    EXPECT_EQ(scp_model_check(text.c_str()), len <= 64 ? 0 : -1) << len;
  }
  for (const auto check : {scp_appid_check, scp_manufacturers_check, scp_model_check})
    EXPECT_EQ(check(nullptr), -1);
}

TEST(LocationRequest, SetUp) {
  const char* const id = "ABCDEFGHIJ0123456789";
  const struct {
    int32_t rc;
    const char* appid;
    int32_t environment;
    uint32_t log_level;
    const char* maker;
    const char* model;
    uint32_t port;
  } cases[] = {
      {0, id, 268, 0, "M", "X", 65535},           {0, "ABCDEFG", 52302, 2, "", "", 0},
      {-13003, nullptr, 1, 3, nullptr, "X", 1},   {-13009, id, 1, 0, "M", "X", 1},
      {-13009, id, 268, 3, "M", "X", 1},          {-13009, id, 268, UINT32_MAX, "M", "X", 1},
      {-13009, id, 268, 0, nullptr, "X", 1},      {-13009, id, 268, 0, "M", nullptr, 1},
      {-13009, id, 268, 0, "M", "X", UINT32_MAX}, {-13009, id, 268, 0, "M", "X", 65536},
  };
  ScpContext context{};
  uint32_t result = 77;
  EXPECT_EQ(scp_authentication(&context, &result), -13008);
  EXPECT_EQ(scp_register_GT_callback(&context, nullptr), -13009);
  EXPECT_EQ(scp_authentication(&context, &result), -13009);
  for (const auto& c : cases) {
    EXPECT_EQ(scp_init(&context, c.appid, c.environment, c.log_level, 2, c.maker, c.model, "h", c.port),
              c.rc);
    EXPECT_EQ(context.initialised, c.rc == 0 ? 1 : 0);
    EXPECT_EQ(context.lastError, c.rc);
    EXPECT_EQ(scp_authentication(&context, &result), c.rc == 0 ? -13008 : c.rc) << "without a clock";
  }
  EXPECT_EQ(scp_register_GT_callback(&context, now), 0);
  EXPECT_EQ(scp_authentication(&context, &result), -13009) << "the last set-up failed";
  EXPECT_EQ(scp_register_GT_callback(nullptr, now), -13008);
  EXPECT_EQ(scp_init(nullptr, id, 268, 0, 2, "M", "X", "host", 1), -13008);
  EXPECT_EQ(scp_authentication(nullptr, &result), -13008);
  EXPECT_EQ(scp_authentication(&context, nullptr), -13008);
  EXPECT_EQ(result, 77U);

  std::memset(&context, 0x7E, sizeof context);
  const std::string host(200, 'h');
  ASSERT_EQ(scp_init(&context, "ABCDEFG", 268, 0, 2, "M", "X1", host.c_str(), 443), 0);
  EXPECT_EQ(std::string(context.appid) + context.manufacturer + context.model, "ABCDEFG0000000000000MX1");
  EXPECT_EQ(context.host, host.substr(0, 127));
  ASSERT_EQ(scp_init(&context, "ABCDEFG", 268, 0, 2, "M", "X1", nullptr, 443), 0);
  EXPECT_STREQ(context.host, "");
}

TEST(LocationRequest, EdgesOfTheCodecs) {
  ScpContext context{};
  Bytes out(80, 0xEE);
  EXPECT_EQ(scp_input_9300_group(&context, out.data(), 80), -1) << "no clock";
  ASSERT_EQ(scp_init(&context, "ABCDEFG", 268, 0, 2, "M", "X1", "127.0.0.1", 1), 0);
  scp_register_GT_callback(&context, now);
  EXPECT_EQ(scp_input_9300_group(&context, out.data(), 79), -1);
  EXPECT_EQ(out, Bytes(80, 0xEE));
  for (const int64_t time : {int64_t{0}, INT64_MIN, INT64_MAX}) {
    g_now = time;
    EXPECT_EQ(scp_input_9300_group(&context, out.data(), 80), 80);
    EXPECT_EQ(hex(exact_copy(out, 5)), "9300509300");
  }
  uint32_t location = 77;
  EXPECT_EQ(scp_input_9300_group(&context, nullptr, 80), -1);
  EXPECT_EQ(scp_input_9300_group(nullptr, out.data(), 80), -1);
  EXPECT_EQ(scp_output_9300_analysis(&context, nullptr, 28, &location), -1);
  EXPECT_EQ(scp_output_9300_analysis(nullptr, out.data(), 28, &location), -1);
  EXPECT_EQ(scp_output_9300_analysis(&context, out.data(), 28, nullptr), -1);
  EXPECT_EQ(location, 77U);
  EXPECT_EQ(scp_socket_send_and_recv(nullptr, out.data(), 64, out.data(), 64), -1);
  EXPECT_EQ(scp_socket_send_and_recv(&context, nullptr, 64, out.data(), 64), -1);
  EXPECT_EQ(scp_socket_send_and_recv(&context, out.data(), 64, nullptr, 64), -1);
  EXPECT_EQ(scp_socket_send_and_recv(&context, out.data(), UINT32_MAX, out.data(), 64), -1);
}

TEST(LocationValues, KeysAndRandomBytes) {
  const struct {
    int32_t environment;
    const char* key;
  } keys[] = {{268, "de0e10900000000000000010ca710268"},
              {52302, "de0e109000000000000010ca71052302"},
              {26814, "de0e109000000000000010ca71026814"},
              {1, "de0e10900000000000000010ca710268"}};
  Bytes key(16);
  for (const auto& row : keys) {
    EXPECT_EQ(scp_getPublicKey(row.environment, key.data()), 16);
    EXPECT_EQ(hex(key), row.key);
  }
  EXPECT_EQ(scp_getPublicKey(268, nullptr), -1);

  SessionConfig cfg{};
  cfg.timestampCallback = now;
  ScpContext context{};
  scp_register_GT_callback(&context, now);
  for (const int64_t time : {int64_t{0}, int64_t{1700000000123}, int64_t{-1}, INT64_MIN, INT64_MAX}) {
    g_now = time;
    Bytes twin(33, 0xEE);
    Bytes bytes(33, 0xEE);
    EXPECT_EQ(create_rand_number(&cfg, twin.data(), 32), time);
    EXPECT_EQ(scp_crate_rand_number(&context, bytes.data(), 32), time);
    EXPECT_EQ(hex(bytes), hex(twin));
  }
  EXPECT_EQ(scp_crate_rand_number(&context, nullptr, 8), g_now);
  EXPECT_EQ(scp_crate_rand_number(&context, key.data(), -1), g_now);
  EXPECT_EQ(scp_crate_rand_number(nullptr, nullptr, 8), 0);
}

}  // namespace
