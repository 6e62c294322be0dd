// The one-byte checksum of every frame and block.
#pragma once

#include <cstdint>
#include <span>

#include "protocol/command_frame.h"

namespace tq {

inline uint8_t low_byte_sum(std::span<const uint8_t> bytes) {
  return static_cast<uint8_t>(check_sum_group(bytes.data(), static_cast<uint32_t>(bytes.size())));
}

}  // namespace tq
