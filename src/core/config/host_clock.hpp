// The application's clock.
#pragma once

#include <cstdint>

#include "core/config/session_config.h"

namespace tq {

// The application's time in milliseconds, 0 when it gave none.
inline int64_t host_time(const SessionConfig& cfg) {
  return cfg.timestampCallback == nullptr ? 0 : cfg.timestampCallback();
}

// later - earlier, for times that an application may have made up: wraps instead of overflowing.
inline int64_t elapsed(int64_t later, int64_t earlier) {
  return static_cast<int64_t>(static_cast<uint64_t>(later) - static_cast<uint64_t>(earlier));
}

}  // namespace tq
