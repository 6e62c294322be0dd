// What the tests of requests share: a configuration, the system's randomness, and what is expected of
// builders.
#pragma once

#include <gtest/gtest.h>

#include <cstring>

#include "core/config/session_config.h"
#include "protocol/server_frames.hpp"

namespace test {

inline constexpr int64_t kNow = 1'700'000'123'456;
// What the pseudo-random generator makes of kNow, worked out apart from the library.
inline const Bytes kRandomNow = from_hex("207BCDCF38DF80EC3F3894AAC023B88B");

// What the system's random bytes are while one of these lives; zeros leave what they are added to as it is.
enum class SystemRandom { kReal, kZeros, kNone };
extern SystemRandom g_system_random;
struct WithSystemRandom {
  explicit WithSystemRandom(SystemRandom kind) { g_system_random = kind; }
  ~WithSystemRandom() { g_system_random = SystemRandom::kReal; }
  WithSystemRandom(const WithSystemRandom&) = delete;
  WithSystemRandom& operator=(const WithSystemRandom&) = delete;
};

// A configuration whose device identifier has this length.
inline SessionConfig config_with_device(size_t device_length) {
  SessionConfig cfg{};
  std::memset(reinterpret_cast<char*>(&cfg) + offsetof(SessionConfig, sn1), 'd', device_length);
  cfg.timestampCallback = [] { return kNow; };
  cfg.decodeMode = 1;
  cfg.frameFlag = 1;
  cfg.queryInfo[0] = 2;
  cfg.queryInfo[1] = 1;
  return cfg;
}

// `build(out, capacity)` makes these bytes when they just fit, and is refused when they do not. No bytes:
// always refused.
template <typename Build>
void expect_built(Build build, const Bytes& expected) {
  Bytes out(std::max<size_t>(expected.size(), 70000));
  EXPECT_EQ(text_of(build(out.data(), expected.empty() ? len(out) : len(expected)), out),
            expected.empty() ? "-1" : hex(expected));
  if (!expected.empty()) {
    EXPECT_EQ(build(out.data(), len(expected) - 1), -1);
  }
}

}  // namespace test
