// The result of a read, as the reads call it.
#pragma once

#include <cstdint>
#include <span>

#include "core/config/session_config.h"

namespace tq {

// What result_info_data_parse and result_business_id_parse do.
int32_t make_result(const SessionConfig& cfg, std::span<const uint8_t> delivered, info_data& result);
void make_business_id_result(const SessionConfig& cfg, info_data& result);

}  // namespace tq
