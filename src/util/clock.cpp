#include "util/clock.h"

#include <sys/time.h>
#include <time.h>

#include "util/clock.hpp"

namespace {

constexpr int64_t kClockFailure = -1;

}  // namespace

extern "C" int64_t getNowTimestamp(void) {
  // Seconds and microseconds come from one reading: two readings could fall on either side of a full second.
  timeval now{};
  if (gettimeofday(&now, nullptr) != 0) return kClockFailure;
  tm utc{};
  if (gmtime_r(&now.tv_sec, &utc) == nullptr) return kClockFailure;
  const time_t as_local = mktime(&utc);
  if (as_local == static_cast<time_t>(-1)) return kClockFailure;
  return int64_t{as_local} * 1000 + now.tv_usec / 1000 + tq::kEightHoursMs;
}
