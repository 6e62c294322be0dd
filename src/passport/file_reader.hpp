// Reading the elementary files of a passport through the secure channel: SELECT by file identifier, READ
// BINARY of the first four bytes, which tell the file's size, then of the rest in chunks.
#pragma once

#include <cstdint>
#include <span>

#include "core/config/session_config.h"
#include "passport/file_table.hpp"
#include "passport/secure_channel.hpp"

namespace tq {

// Protects a command and sends it. Returns what tq_read_card_send does, or TQ_FAILED when it could not be
// protected and was not sent.
int32_t send_protected(SessionConfig& cfg, SecureChannel& channel, const PlainCommand& command, uint8_t step);

// SELECT by file identifier.
int32_t send_select(SessionConfig& cfg, SecureChannel& channel, uint16_t file_id, uint8_t step,
                    bool with_le = false);

// READ BINARY of `count` bytes.
int32_t send_read(SessionConfig& cfg, SecureChannel& channel, size_t offset, size_t count, uint8_t step);

// Judges an answer by its status word and opens it. Returns the number of plain bytes in `out`, the code of
// tq_read_card_anlysis, or TQ_CARD_FAILED when it cannot be opened.
int32_t open_answer(SessionConfig& cfg, SecureChannel& channel, std::span<const uint8_t> answer,
                    std::span<uint8_t> out);

// Handles the answer to a READ BINARY. Returns 1 when the next one has been sent with `step`, 0 when the file
// is complete, or a negative code.
int32_t read_next(SessionConfig& cfg, SecureChannel& channel, FileTable& files,
                  std::span<const uint8_t> answer, uint16_t file_id, uint8_t step);

constexpr size_t kFirstChunk = 4;  // asked for at first: tag, length field, and what fits of the value

}  // namespace tq
