// Reading the elementary files of a passport, as a rule through the secure channel: SELECT by file
// identifier, READ BINARY of the first four bytes, which tell the file's size, then of the rest in chunks.
// One file at a time; it is kept whole or not at all.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "core/config/session_config.h"
#include "passport/chip_answer.hpp"
#include "passport/file_table.hpp"
#include "passport/secure_channel.hpp"

namespace tq {

// Protects a command and sends it. False when it could not be protected; then nothing is sent.
[[nodiscard]] bool send_protected(SessionConfig& cfg, SecureChannel& channel, const PlainCommand& command,
                                  uint8_t step);

// The same without protection.
[[nodiscard]] bool send_in_clear(SessionConfig& cfg, const PlainCommand& command, uint8_t step);

class FileReader {
 public:
  enum class Progress : uint8_t {
    kGoesOn,    // the next READ BINARY has been sent
    kComplete,  // the file is in its row
    kFailed,    // code() says how; the row has no bytes
    kNotSent,   // the next READ BINARY could not be
  };

  FileReader(SessionConfig& cfg, SecureChannel& channel, FileTable& files)
      : cfg_(cfg), channel_(channel), files_(files), chunk_(cfg.readChunkSize) {}

  enum class Way : uint8_t { kChannel, kInClear };

  [[nodiscard]] bool select(uint16_t file_id, uint8_t step, Way way = Way::kChannel);

  // Asks for the start of the file; answers come back with `step`. What was kept of it before is dropped.
  [[nodiscard]] bool start(uint16_t file_id, uint8_t step, Way way = Way::kChannel);

  // Takes the answer to READ BINARY of this file.
  Progress take(uint16_t file_id, std::span<const uint8_t> answer);

  int32_t code() const { return code_; }

  // Drops what there is of a file that is not complete.
  void abandon();

 private:
  using Bytes = std::span<const uint8_t>;

  Progress keep(PassportFileRecord& row, Bytes chunk);
  Progress fail(int32_t code);
  size_t count_that_would_do(const ChipAnswer& answer);
  size_t most_at_once() const;
  Progress ask_next();
  Progress ask_for(size_t count);
  bool send(const PlainCommand& command);

  static constexpr uint16_t kNoFile = 0;

  SessionConfig& cfg_;
  SecureChannel& channel_;
  FileTable& files_;
  size_t chunk_;  // most bytes asked for at once; a chip may want fewer
  int32_t code_ = 0;

  uint16_t file_id_ = kNoFile;  // the file that is being read
  uint8_t step_ = 0;
  Way way_ = Way::kChannel;
  std::array<uint8_t, 4> header_{};  // tag, length field, and what fits of the value, while they come
  size_t header_len_ = 0;
  size_t offset_ = 0;       // of the next byte
  size_t missing_ = 0;      // bytes from there on; 0 while the size is not known
  size_t asked_ = 0;        // bytes that the last READ BINARY was for
  bool odd_ = false;        // it had the odd instruction
  bool told_ = false;       // the chip had told how many
  uint32_t num_empty_ = 0;  // answers without data, one after the other
};

}  // namespace tq
