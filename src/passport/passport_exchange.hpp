// The passport's exchanges with the decode server, over the open connection.
#pragma once

#include <cstdint>
#include <span>

#include "core/config/session_config.h"
#include "passport/file_table.hpp"
#include "protocol/frames.hpp"

namespace tq {

using PassportToken = std::span<const uint8_t, TQ_PASSPORT_TOKEN_LENGTH>;

// What a read has brought home.
struct PassportContent {
  FileRows files{};
  std::span<const uint8_t> aa_answer{};  // to INTERNAL AUTHENTICATE; empty when there is none
  std::span<const uint8_t> challenge{};  // at most TQ_AA_CHALLENGE_LENGTH bytes
  uint32_t bac_time = 0;                 // of both times the low 16 bits are sent
  uint32_t read_time = 0;
};

// 0x7201: opens the read on the server and brings its token. Returns TQ_OK, or the read's result code.
[[nodiscard]] int32_t start_on_server(SessionConfig& cfg, WorkKey work_key,
                                      std::span<uint8_t, TQ_PASSPORT_TOKEN_LENGTH> token);

// 0x7202: has the content decoded and fills `result`. Returns the read's result code.
[[nodiscard]] int32_t decode_on_server(SessionConfig& cfg, WorkKey work_key, PassportToken token,
                                       const PassportContent& content, info_data& result);

}  // namespace tq
