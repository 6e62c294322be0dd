// Random bytes of the operating system.
#pragma once

#include <cstdint>
#include <span>

namespace tq {

// Fills `out` with bytes fit for keys. False, with `out` unchanged or partly filled, when the system has
// none.
[[nodiscard]] bool system_random(std::span<uint8_t> out);

}  // namespace tq
