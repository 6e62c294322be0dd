#include "core/config/device_values.h"

#include <gtest/gtest.h>

#include <cstring>

#include "support/bytes.hpp"

namespace {

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
    test::Bytes out(16);
    EXPECT_EQ(create_rand_number(&cfg, out.data(), 16), c.time);
    EXPECT_EQ(test::hex(out), c.bytes) << c.time;
  }
  test::Bytes untouched(1, 0xEE);
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
