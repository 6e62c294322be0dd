// The random bytes of a read.
#pragma once

#include <cstdint>
#include <span>

#include "core/config/session_config.h"

namespace tq {

// Fills `out` from create_rand_number with random bytes of the system on top (XOR), so that no byte follows
// from the time of day. False, and `out` zero, when the system has none.
[[nodiscard]] bool draw_random(SessionConfig& cfg, std::span<uint8_t> out);

}  // namespace tq
