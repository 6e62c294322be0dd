// The monitor report, as the reads call it.
#pragma once

#include <cstdint>
#include <span>

#include "core/config/session_config.h"
#include "protocol/frames.hpp"

namespace tq {

struct MonitorReport {
  WorkKey work_key;
  int64_t start_time;  // of the read, on the application's clock, milliseconds
  int32_t result;
  uint32_t delay;                        // of the authentication, milliseconds
  const char* sod_text = "";             // about the passport's security object
  std::span<const uint8_t> prefix = {};  // 16 bytes, or none: zeros
  std::span<const uint8_t> stick_card_id;
};

// What monitor_data_parse does. False when the read has been stopped before the application was asked: then
// nobody is told anything.
[[nodiscard]] bool send_monitor_report(SessionConfig& cfg, const MonitorReport& report);

// What input_7219_group does.
int32_t build_monitor_request(const SessionConfig& cfg, std::span<const uint8_t> text, WorkKey key,
                              std::span<uint8_t> out, std::span<const uint8_t> prefix);

}  // namespace tq
