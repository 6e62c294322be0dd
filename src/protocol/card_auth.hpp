// Relaying the card's authentication, as the read calls it.
#pragma once

#include <cstdint>
#include <span>

#include "core/config/session_config.h"
#include "protocol/frames.hpp"

namespace tq {

// What input_auth_cmd_group and output_auth_cmd_analysis do.
int32_t build_card_auth(SessionConfig& cfg, std::span<const uint8_t> card, uint32_t command, WorkKey key,
                        std::span<uint8_t> out);
int32_t take_card_command(std::span<const uint8_t> frame, uint32_t command, WorkKey key,
                          std::span<uint8_t> out);

}  // namespace tq
