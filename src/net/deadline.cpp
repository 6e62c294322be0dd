#include "net/deadline.hpp"

#include <algorithm>
#include <ctime>

#include "util/clock.h"

namespace tq::net {
namespace {

int64_t monotonic_ms() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

// The latest moment there is when it lies beyond that.
int64_t later(int64_t start_ms, int64_t duration_ms) {
  return duration_ms > INT64_MAX - start_ms ? INT64_MAX : start_ms + duration_ms;
}

int64_t left_ms(int64_t end_ms, int64_t now_ms) {
  return end_ms <= now_ms ? 0 : end_ms - now_ms;
}

}  // namespace

Deadline Deadline::in(int64_t limit_ms) {
  Deadline deadline;
  deadline.monotonic_ms_ = later(monotonic_ms(), limit_ms);
  return deadline;
}

Deadline Deadline::by_both_clocks_in(int64_t limit_ms) {
  Deadline deadline = in(limit_ms);
  const int64_t now_ms = getNowTimestamp();
  deadline.wall_ms_ = now_ms < 0 ? now_ms : later(now_ms, limit_ms);
  return deadline;
}

bool Deadline::clock_ok() const {
  return wall_ms_ == kNever || (wall_ms_ >= 0 && getNowTimestamp() >= 0);
}

int64_t Deadline::remaining_ms() const {
  const int64_t left = monotonic_ms_ == kNever ? kNever : left_ms(monotonic_ms_, monotonic_ms());
  if (wall_ms_ == kNever) return left;
  const int64_t now_ms = getNowTimestamp();
  return now_ms < 0 ? 0 : std::min(left, left_ms(wall_ms_, now_ms));
}

Deadline Deadline::or_sooner(const Deadline& other) const {
  return other.monotonic_ms_ < monotonic_ms_ ? other : *this;
}

}  // namespace tq::net
