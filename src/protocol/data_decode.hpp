// Sending the card's files for decoding, as the read calls it.
#pragma once

#include <cstdint>
#include <span>

#include "protocol/data_decode.h"
#include "protocol/frames.hpp"

namespace tq {

struct CardFiles {
  std::span<const uint8_t> management;
  std::span<const uint8_t> file6011;
  std::span<const uint8_t> file6012;
  std::span<const uint8_t> file6013;
};

// What input_data_decode_group and output_data_decode_analysis do. 0x6002 needs no timing: it may be null.
int32_t build_decode_request(const CardFiles& files, uint32_t command, const TqTiming* timing, WorkKey key,
                             std::span<uint8_t> out);
int32_t take_decoded(std::span<const uint8_t> frame, uint32_t command, WorkKey key, std::span<uint8_t> out);

}  // namespace tq
