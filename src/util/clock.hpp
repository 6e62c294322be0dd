// What the library's clocks are ahead of UTC.
#pragma once

#include <cstdint>

namespace tq {

constexpr int64_t kEightHoursMs = 28'800'000;

}  // namespace tq
