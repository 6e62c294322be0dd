// The plaintext of a secret frame, for the builders that add something behind it before they encrypt.
#pragma once

#include <cstdint>
#include <span>

#include "util/byte_cursor.hpp"

namespace tq {

// Writes start marker, length, command, data, checksum and end marker.
void write_secret_frame(ByteWriter& w, uint32_t command, std::span<const uint8_t> data);

}  // namespace tq
