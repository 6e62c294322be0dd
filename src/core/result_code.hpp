// Passing codes on from level to level.
#pragma once

#include <cstdint>

#include "core/result_code.h"

namespace tq {

// What a routine returned, with `code` for its general failure. Lengths, and codes that say more, stay.
constexpr int32_t failed_as(TqResultCode code, int32_t value) {
  if (value == TQ_FAILED) return code;
  return value;
}

}  // namespace tq
