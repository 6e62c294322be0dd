// Server authentication, as the reads call it.
#pragma once

#include <cstdint>
#include <span>

#include "core/config/session_config.h"
#include "protocol/frames.hpp"

namespace tq {

using WorkKeyBlock = std::span<uint8_t, kWorkKeyLength>;
using StickCardId = std::span<const uint8_t, TQ_STICK_CARD_ID_LENGTH>;
using NewStickCardId = std::span<uint8_t, TQ_STICK_CARD_ID_LENGTH>;

// What server_authentication does.
int32_t authenticate(SessionConfig& cfg, WorkKeyBlock work_key, uint32_t& delay,
                     NewStickCardId stick_card_id);

// What input_7500_group and output_7100_and_7500_analysis do.
int32_t build_authentication(SessionConfig& cfg, WorkKeyBlock work_key, StickCardId stick_card_id,
                             std::span<uint8_t> out);
int32_t take_authentication(SessionConfig& cfg, std::span<const uint8_t> frame, uint32_t command,
                            WorkKeyBlock work_key, NewStickCardId stick_card_id);

}  // namespace tq
