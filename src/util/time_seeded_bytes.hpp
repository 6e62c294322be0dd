// The protocols' pseudo-random bytes: a linear congruential generator seeded with a time. Not for keys.
#pragma once

#include <cstdint>
#include <span>

namespace tq {

// Fills `out` from a time in milliseconds; the same time gives the same bytes.
inline void fill_time_seeded(int64_t now_ms, std::span<uint8_t> out) {
  constexpr int64_t kSeedModulus = 1'000'000'000;
  constexpr uint64_t kMultiplier = 214013;
  constexpr uint64_t kIncrement = 2531011;
  auto state = static_cast<uint64_t>(now_ms % kSeedModulus);
  for (uint8_t& byte : out) {
    state = state * kMultiplier + kIncrement;
    const uint64_t r = state >> 16;
    byte = static_cast<uint8_t>(r + (r & 0x7FFF) / 255);
  }
}

}  // namespace tq
