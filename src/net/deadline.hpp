// When something that waits has to end.
#pragma once

#include <cstdint>

namespace tq::net {

// A moment on the monotonic clock, and where that is asked for on the library's own clock as well: then it
// has come when either says so, since the wall clock may be set back while somebody waits.
class Deadline {
 public:
  static Deadline never() { return Deadline(); }
  static Deadline in(int64_t limit_ms);
  static Deadline by_both_clocks_in(int64_t limit_ms);

  // False when the library's clock counts and fails: then the deadline has passed.
  bool clock_ok() const;

  // Milliseconds that are left, 0 when it has passed.
  int64_t remaining_ms() const;
  bool passed() const { return remaining_ms() == 0; }

  // The sooner one, of two that go by the monotonic clock.
  Deadline or_sooner(const Deadline& other) const;

 private:
  static constexpr int64_t kNever = INT64_MAX;

  // What the clocks say then; negative when the wall clock failed.
  int64_t monotonic_ms_ = kNever;
  int64_t wall_ms_ = kNever;
};

}  // namespace tq::net
