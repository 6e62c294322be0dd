// Limits on how long something may take.
#pragma once

#include <cstdint>
#include <ctime>

#include "util/clock.h"

namespace tq {

// Starts when it is made, and goes by the monotonic clock alone.
class SteadyLimit {
 public:
  explicit SteadyLimit(int64_t limit_ms) : limit_ms_(limit_ms), start_(now_ms()) {}

  int64_t elapsed_ms() const { return now_ms() - start_; }

  // Milliseconds that are left, 0 when the limit has passed.
  int64_t remaining_ms() const {
    const int64_t elapsed = elapsed_ms();
    return elapsed >= limit_ms_ ? 0 : limit_ms_ - elapsed;
  }

 private:
  static int64_t now_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
  }

  int64_t limit_ms_;
  int64_t start_;
};

// Starts when it is made. It has passed when either the library's clock or the monotonic clock says so: the
// wall clock may be set back while somebody waits, and nothing may wait for ever because of it.
class TimeLimit {
 public:
  explicit TimeLimit(int64_t limit_ms)
      : limit_ms_(limit_ms), wall_start_(getNowTimestamp()), steady_(limit_ms) {}

  // False when the clock failed; then nothing else here may be relied on.
  bool clock_ok() const { return wall_start_ >= 0; }

  // Milliseconds that are left, 0 when the limit has passed, negative on a clock failure.
  int64_t remaining_ms() const {
    const int64_t now = getNowTimestamp();
    if (now < 0 || wall_start_ < 0) return -1;
    const int64_t wall = now - wall_start_;
    const int64_t steady = steady_.elapsed_ms();
    const int64_t elapsed = wall > steady ? wall : steady;
    return elapsed >= limit_ms_ ? 0 : limit_ms_ - elapsed;
  }

 private:
  int64_t limit_ms_;
  int64_t wall_start_;
  SteadyLimit steady_;
};

}  // namespace tq
