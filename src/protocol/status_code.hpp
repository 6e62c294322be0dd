// The failure status that a server puts into its answer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "core/result_code.h"

namespace tq {

// The status bytes as hexadecimal digits, F counting as 0, read as a decimal number up to the first other
// letter. A failure whose digits read as zero is no status at all.
inline int32_t status_code(std::span<const uint8_t> status) {
  int32_t value = 0;
  for (size_t i = 0; i < 2 * status.size(); ++i) {
    const uint8_t byte = status[i / 2];
    const int32_t digit = (i % 2 == 0 ? byte >> 4 : byte & 0x0F);
    if (digit > 9 && digit < 15) break;
    value = value * 10 + digit % 15;
  }
  return value == 0 ? TQ_FAILED : -value;
}

}  // namespace tq
