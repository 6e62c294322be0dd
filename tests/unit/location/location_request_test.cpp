#include "location/location_request.h"

#include <gtest/gtest.h>

#include <cstring>
#include <numeric>
#include <string>

#include "core/config/device_values.h"
#include "location/location_values.h"
#include "support/openssl_peer.hpp"

namespace {

using namespace test;

constexpr int64_t kNow = 1700000000123;
int64_t g_now = kNow;
int64_t now() {
  return g_now;
}

const struct {
  int32_t environment;
  const char* key;
} kKeys[] = {{268, "de0e10900000000000000010ca710268"},
             {52302, "de0e109000000000000010ca71052302"},
             {26814, "de0e109000000000000010ca71026814"}};

// The server's side: SM4-CBC under the environment's key, with the vector folded from the key's digest.
Bytes cipher(bool encrypt, int32_t environment, const Bytes& blocks) {
  Bytes key;
  for (const auto& row : kKeys) {
    if (row.environment == environment) key = from_hex(row.key);
  }
  const Bytes digest = openssl_digest(EVP_sm3(), key);
  Bytes iv(16);
  for (size_t i = 0; i < 16; ++i) iv[i] = digest[i] ^ digest[i + 16];
  return openssl_cipher(EVP_sm4_cbc(), encrypt, key, iv, blocks);
}

uint8_t sum(const Bytes& bytes, size_t from = 0) {
  return static_cast<uint8_t>(std::accumulate(bytes.begin() + static_cast<ptrdiff_t>(from), bytes.end(), 0U));
}

void append(Bytes& out, std::string_view text) {
  out.insert(out.end(), text.begin(), text.end());
}

ScpContext context_of(const char* appid, const std::string& maker, const std::string& model,
                      int32_t environment = 268, uint32_t type = 2) {
  ScpContext context{};
  EXPECT_EQ(scp_init(&context, appid, environment, 0, type, maker.c_str(), model.c_str(), "127.0.0.1", 1), 0);
  EXPECT_EQ(scp_register_GT_callback(&context, now), 0);
  return context;
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
  const std::string name(64, 'n');
  const std::string too_long(65, 'n');
  const struct {
    int32_t rc;
    const char* appid;
    int32_t environment;
    uint32_t log_level;
    const char* maker;
    const char* model;
    uint32_t port;
  } cases[] = {
      {0, id, 268, 0, name.c_str(), name.c_str(), 65535},
      {0, "ABCDEFG", 52302, 2, "", "", 0},
      {0, id, 26814, 1, "M", "X", 1},
      {-13003, "ABCDEFGH", 268, 0, "M", "X", 1},
      {-13003, "ABCDEF", 268, 0, "M", "X", 1},
      {-13003, "", 1, 0, "M", "X", 1},
      {-13003, nullptr, 1, 3, nullptr, "X", 1},
      {-13009, id, 1, 0, "M", "X", 1},
      {-13009, id, 268, 3, "M", "X", 1},
      {-13009, id, 268, UINT32_MAX, "M", "X", 1},
      {-13009, id, 268, 0, too_long.c_str(), "X", 1},
      {-13009, id, 268, 0, "M", too_long.c_str(), 1},
      {-13009, id, 268, 0, nullptr, "X", 1},
      {-13009, id, 268, 0, "M", nullptr, 1},
      {-13009, id, 268, 0, "M", "X", 65536},
      {-13009, id, 268, 0, "M", "X", UINT32_MAX},
  };
  ScpContext context{};
  uint32_t result = 77;
  EXPECT_EQ(scp_authentication(&context, &result), -13008);
  EXPECT_EQ(scp_register_GT_callback(&context, nullptr), -13009);
  EXPECT_EQ(scp_authentication(&context, &result), -13009);
  for (const auto& c : cases) {
    EXPECT_EQ(scp_init(&context, c.appid, c.environment, c.log_level, 2, c.maker, c.model, "host", c.port),
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
}

TEST(LocationRequest, StoredTextsEndWhereTheyShould) {
  ScpContext context{};
  std::memset(&context, 0x7E, sizeof context);
  const std::string host(200, 'h');
  ASSERT_EQ(scp_init(&context, "ABCDEFG", 268, 0, 2, "M", "X1", host.c_str(), 443), 0);
  EXPECT_STREQ(context.appid, "ABCDEFG0000000000000");
  EXPECT_STREQ(context.manufacturer, "M");
  EXPECT_STREQ(context.model, "X1");
  EXPECT_EQ(std::string(context.host), host.substr(0, 127));
  EXPECT_EQ(context.port, 443U);
  ASSERT_EQ(scp_init(&context, "ABCDEFG", 268, 0, 2, "M", "X1", nullptr, 443), 0);
  EXPECT_STREQ(context.host, "");
}

TEST(LocationRequest, Frames) {
  const struct {
    const char* appid;
    std::string maker;
    std::string model;
    int32_t environment;
    uint32_t type;
    int64_t time;
    std::string time_text;
  } cases[] = {
      {"ABCDEFG", "M", "X1", 268, 2, kNow, "1700000000123"},
      {"abcdefghij0123456789", "", "", 52302, 255, 9999999999999, "9999999999999"},
      {"abcdefghij0123456789", std::string(64, 'm'), std::string(64, 'x'), 26814, 0x102, kNow,
       "1700000000123"},
      {"ABCDEFG", "\xE6\x89\x8B\xE6\x9C\xBA", "X", 268, 2, 0, std::string("0") + std::string(12, '\0')},
      {"ABCDEFG", "M", "X", 268, 2, 12345678901234, "1234567890123"},
      {"ABCDEFG", "M", "X", 268, 2, -5, "-5" + std::string(11, '\0')},
      {"ABCDEFG", "M", "X", 268, 2, INT64_MIN, "-922337203685"},
  };
  for (const auto& c : cases) {
    g_now = c.time;
    const ScpContext context = context_of(c.appid, c.maker, c.model, c.environment, c.type);
    const std::string appid = std::strlen(c.appid) == 7 ? c.appid + std::string(13, '0') : c.appid;
    Bytes plain = {0x10};
    append(plain, appid);
    append(plain, c.time_text);
    plain.push_back(static_cast<uint8_t>(c.type));
    plain.push_back(static_cast<uint8_t>(c.maker.size()));
    append(plain, c.maker);
    plain.push_back(static_cast<uint8_t>(c.model.size()));
    append(plain, c.model);
    plain.push_back(sum(plain));
    EXPECT_EQ(plain.size(), 38 + c.maker.size() + c.model.size());
    const size_t padding = 16 - plain.size() % 16;
    plain.insert(plain.end(), padding, static_cast<uint8_t>(padding));

    Bytes frame = from_hex("93 0000 9300 0001 001C A1 10");
    frame[2] = static_cast<uint8_t>(plain.size() + 32);
    append(frame, appid);
    const Bytes sealed = cipher(true, c.environment, plain);
    frame.insert(frame.end(), sealed.begin(), sealed.end());
    frame.push_back(sum(frame, 1));

    Bytes out(frame.size(), 0xEE);
    const auto capacity = static_cast<uint32_t>(out.size());
    EXPECT_EQ(scp_input_9300_group(&context, out.data(), capacity - 1), -1);
    EXPECT_EQ(scp_input_9300_group(&context, out.data(), capacity), static_cast<int32_t>(capacity));
    EXPECT_EQ(hex(out), hex(frame));
  }
  g_now = kNow;
  const ScpContext context = context_of("ABCDEFG", "M", "X1");
  Bytes out(1024);
  EXPECT_EQ(scp_input_9300_group(&context, out.data(), 1024), 80);
  EXPECT_EQ(hex(exact_copy(out, 5)), "9300509300");
  EXPECT_EQ(scp_input_9300_group(&context, nullptr, 1024), -1);
  EXPECT_EQ(scp_input_9300_group(nullptr, out.data(), 1024), -1);
  const ScpContext empty{};
  EXPECT_EQ(scp_input_9300_group(&empty, out.data(), 1024), -1);
}

// An answer with everything right around `payload`.
Bytes answer_of(const Bytes& payload, const char* status = "000000", const char* middle = "0008AA") {
  Bytes frame = from_hex("93 0000 9300");
  for (const Bytes& part : {from_hex(status), from_hex(middle), payload})
    frame.insert(frame.end(), part.begin(), part.end());
  frame[1] = static_cast<uint8_t>((frame.size() + 1) >> 8);
  frame[2] = static_cast<uint8_t>(frame.size() + 1);
  frame.push_back(sum(frame, 1));
  return frame;
}

// 16 bytes of plaintext, padding included, as the server sends them.
Bytes sealed(const char* plain, int32_t environment = 268) {
  Bytes blocks = from_hex(plain);
  blocks.resize(16, static_cast<uint8_t>(16 - blocks.size()));
  return cipher(true, environment, blocks);
}

Bytes changed(Bytes frame, size_t at, uint8_t value) {
  frame[at] = value;
  return frame;
}

TEST(LocationRequest, Answers) {
  const Bytes good = answer_of(sealed("2A002A"));
  const struct {
    const char* name;
    Bytes frame;
    int32_t rc;
    uint32_t location;
  } cases[] = {
      {"good", good, 0, 0x2A},
      {"two bytes", answer_of(sealed("FFFF")), 0, 255},
      {"fifteen bytes", answer_of(sealed("0101010101010101010101010101 0E")), 0, 1},
      {"one byte", answer_of(sealed("00")), 0, 0},
      {"one byte that is no sum", answer_of(sealed("01")), -1, 0},
      {"sum wraps", answer_of(sealed("80FF7F")), 0, 128},
      {"wrong sum", answer_of(sealed("2A012A")), -1, 0},
      {"sixteen bytes, padding 0", answer_of(sealed("00000000000000000000000000000000")), 0, 0},
      {"no byte", answer_of(sealed("10101010101010101010101010101010")), -1, 0},
      {"padding longer than the block", answer_of(sealed("00000000000000000000000000000011")), -1, 0},
      {"another environment's key", answer_of(sealed("2A002A", 26814)), -1, 0},
      {"parameter above 8", answer_of(sealed("2A002A"), "000000", "FFFFAA"), 0, 0x2A},
      {"parameter 7", answer_of(sealed("2A002A"), "000000", "0007AA"), -1, 0},
      {"type byte", answer_of(sealed("2A002A"), "000000", "0008AB"), -1, 0},
      {"no payload", answer_of({}), -1, 0},
      {"15 bytes", answer_of(Bytes(15)), -1, 0},
      {"32 bytes", answer_of(Bytes(32)), -1, 0},
      {"first byte", changed(good, 0, 0x92), -1, 0},
      {"length", changed(good, 2, 27), -1, 0},
      {"length, high byte", changed(good, 1, 1), -1, 0},
      {"command", changed(good, 3, 0x92), -1, 0},
      {"command, second byte", changed(good, 4, 0x01), -1, 0},
      {"checksum", changed(good, good.size() - 1, static_cast<uint8_t>(good.back() + 1)), -1, 0},
      {"status 7", answer_of({}, "000007"), -7, 0},
      {"status 1", answer_of({}, "000001"), -1, 0},
      {"status 2", answer_of({}, "000002"), -2, 0},
      {"status 1301", answer_of({}, "001301"), -1301, 0},
      {"status with F", answer_of({}, "FFFF01"), -1, 0},
      {"status of F alone", answer_of({}, "FFFFFF"), -1, 0},
      {"largest status", answer_of({}, "999999"), -999999, 0},
      {"status with other letters", answer_of({}, "12AB34"), -12, 0},
      {"status of other letters", answer_of({}, "A00000"), -1, 0},
      {"status before what follows it", answer_of({}, "001301", "0000"), -1, 0},  // eleven bytes
      {"status before the checksum", changed(answer_of({}, "001301", "000000"), 11, 0), -1301, 0},
  };
  const ScpContext context = context_of("ABCDEFG", "M", "X1");
  for (const auto& c : cases) {
    uint32_t location = 777;
    const Bytes exact = exact_copy(c.frame, c.frame.size());
    EXPECT_EQ(
        scp_output_9300_analysis(&context, exact.data(), static_cast<uint32_t>(exact.size()), &location),
        c.rc)
        << c.name;
    EXPECT_EQ(location, c.rc == 0 ? c.location : 777) << c.name;
  }
  uint32_t location = 0;
  for (size_t n = 0; n < good.size(); ++n) {
    const Bytes cut = exact_copy(good, n);
    EXPECT_EQ(scp_output_9300_analysis(&context, cut.data(), static_cast<uint32_t>(n), &location), -1) << n;
  }
  EXPECT_EQ(scp_output_9300_analysis(&context, nullptr, 28, &location), -1);
  EXPECT_EQ(scp_output_9300_analysis(nullptr, good.data(), 28, &location), -1);
  EXPECT_EQ(scp_output_9300_analysis(&context, good.data(), 28, nullptr), -1);
}

TEST(LocationValues, KeysAndRandomBytes) {
  for (const auto& row : kKeys) {
    Bytes key(16);
    EXPECT_EQ(scp_getPublicKey(row.environment, key.data()), 16);
    EXPECT_EQ(hex(key), row.key);
  }
  Bytes other(16);
  EXPECT_EQ(scp_getPublicKey(1, other.data()), 16);
  EXPECT_EQ(hex(other), kKeys[0].key);
  EXPECT_EQ(scp_getPublicKey(268, nullptr), -1);

  SessionConfig cfg{};
  cfg.timestampCallback = now;
  const ScpContext context = context_of("ABCDEFG", "M", "X1");
  for (const int64_t time : {int64_t{0}, kNow, int64_t{-1}, INT64_MIN, INT64_MAX}) {
    g_now = time;
    Bytes twin(33, 0xEE);
    Bytes bytes(33, 0xEE);
    EXPECT_EQ(create_rand_number(&cfg, twin.data(), 32), time);
    EXPECT_EQ(scp_crate_rand_number(&context, bytes.data(), 32), time);
    EXPECT_EQ(hex(bytes), hex(twin));
    EXPECT_EQ(bytes[32], 0xEE);
  }
  g_now = kNow;
  EXPECT_EQ(scp_crate_rand_number(&context, nullptr, 8), kNow);
  EXPECT_EQ(scp_crate_rand_number(&context, other.data(), -1), kNow);
  EXPECT_EQ(scp_crate_rand_number(nullptr, nullptr, 8), 0);
}

}  // namespace
