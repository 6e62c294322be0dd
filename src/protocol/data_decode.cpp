#include "protocol/data_decode.h"

#include <algorithm>

#include "protocol/data_decode.hpp"
#include "protocol/frames.hpp"
#include "util/byte_cursor.hpp"
#include "util/secret.hpp"

namespace tq {
namespace {

constexpr size_t kReservedLength = 64;
constexpr size_t kFileMarks = 4;  // the two file identifiers
constexpr size_t kSecretFraming = 10;
constexpr size_t kTimingLength = 4;

bool takes_file_6013(uint32_t command) {
  return command == kDecodeFile6013;
}

bool is_decode_command(uint32_t command) {
  return command == kDecodeFiles || command == kDecodeIdentity || command == kDecodeFile6013;
}

bool sizes_match(const CardFiles& files, uint32_t command) {
  if (takes_file_6013(command)) return files.file6013.size() == TQ_FILE_6013_LENGTH;
  return files.management.size() == TQ_MANAGEMENT_LENGTH && files.file6011.size() == TQ_FILE_6011_LENGTH &&
         files.file6012.size() == TQ_FILE_6012_LENGTH;
}

size_t data_length(uint32_t command) {
  constexpr size_t kFirstFiles =
      TQ_MANAGEMENT_LENGTH + TQ_FILE_6011_LENGTH + TQ_FILE_6012_LENGTH + kFileMarks;
  const size_t files = takes_file_6013(command) ? size_t{TQ_FILE_6013_LENGTH} : kFirstFiles;
  return command == kDecodeFiles ? files : files + kReservedLength;
}

void write_data(ByteWriter& w, const CardFiles& files, uint32_t command) {
  if (takes_file_6013(command)) {
    w.bytes(files.file6013);
  } else {
    w.bytes(files.management);
    w.number(0x6011, 2);
    w.bytes(files.file6011);
    w.number(0x6012, 2);
    w.bytes(files.file6012);
  }
  if (command != kDecodeFiles) w.fill(0xFF, kReservedLength);
}

// The timing bytes lie behind the end marker, outside the secret frame's length.
void write_timing(ByteWriter& w, const TqTiming& timing) {
  w.number(timing.cardTime & 0xFFFF, 2);
  w.number(timing.fileTime & 0xFFFF, 2);
}

// The encrypted secret frame, in `room`. Returns its length, or TQ_FAILED.
int32_t encrypted_frame(std::span<const uint8_t> data, uint32_t command, const TqTiming* timing, WorkKey key,
                        std::span<uint8_t> room) {
  ByteWriter w(room.first(room.size() - kBlockPadding));
  write_secret_frame(w, command, data);
  if (command != kDecodeFiles) {
    if (timing == nullptr) return TQ_FAILED;
    write_timing(w, *timing);
  }
  return w.ok() ? encrypt_in_place(room, w.size(), key) : TQ_FAILED;
}

std::span<const uint8_t> borrowed(const uint8_t* bytes, uint32_t len) {
  return bytes == nullptr ? std::span<const uint8_t>{} : std::span<const uint8_t>{bytes, len};
}

}  // namespace

int32_t build_decode_request(const CardFiles& files, uint32_t command, const TqTiming* timing, WorkKey key,
                             std::span<uint8_t> out) {
  if (!is_decode_command(command) || !sizes_match(files, command)) return TQ_FAILED;
  const size_t len = data_length(command);
  ScratchBuffer data(len);
  ScratchBuffer secret(len + kSecretFraming + kTimingLength + kBlockPadding);
  if (!data || !secret) return TQ_FAILED;
  ByteWriter w(data.bytes());
  write_data(w, files, command);
  if (!w.ok()) return TQ_FAILED;
  const int32_t secret_len = encrypted_frame(w.written(), command, timing, key, secret.bytes());
  if (secret_len < 0) return TQ_FAILED;
  return build_frame({kHeaderIdentityCard, command}, secret.bytes().first(static_cast<size_t>(secret_len)),
                     out);
}

int32_t take_decoded(std::span<const uint8_t> frame, uint32_t command, WorkKey key, std::span<uint8_t> out) {
  if (frame.size() < kLeastFrame) return TQ_FAILED;
  ScratchBuffer payload(frame.size());
  if (!payload) return TQ_FAILED;
  const uint8_t type = command == kDecodeFiles ? kTypePlain : kTypeFlagged;
  const int32_t len = open_frame(frame, {kHeaderIdentityCard, command, type}, key, payload.bytes());
  if (len < 0) return len;
  const auto plain = payload.bytes().first(static_cast<size_t>(len));
  if (command == kDecodeFiles) return open_secret_frame(plain, command, out);
  std::fill(out.begin(), out.end(), uint8_t{0});
  static_cast<void>(copy_bytes(plain, out));
  return len;
}

}  // namespace tq

// The names for callers from outside.
extern "C" {

int32_t input_data_decode_group(const uint8_t* management, uint32_t managementLength, const uint8_t* file6011,
                                uint32_t file6011Length, const uint8_t* file6012, uint32_t file6012Length,
                                const uint8_t* file6013, uint32_t file6013Length, uint32_t command,
                                const uint8_t* workKey, uint8_t* out, uint32_t capacity,
                                const TqTiming* timing) {
  if (out == nullptr) return TQ_FAILED;
  const tq::CardFiles files{tq::borrowed(management, managementLength),
                            tq::borrowed(file6011, file6011Length), tq::borrowed(file6012, file6012Length),
                            tq::borrowed(file6013, file6013Length)};
  return tq::build_decode_request(files, command, timing, tq::work_key_at(workKey), {out, capacity});
}

int32_t output_data_decode_analysis(const uint8_t* frame, uint32_t frameLength, uint32_t command,
                                    const uint8_t* workKey, uint8_t* out, uint32_t capacity) {
  if (frame == nullptr || out == nullptr) return TQ_FAILED;
  return tq::take_decoded({frame, frameLength}, command, tq::work_key_at(workKey), {out, capacity});
}

}  // extern "C"
