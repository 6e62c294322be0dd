#include "protocol/secret_frame.h"

#include "crypto/sm4_padding.h"
#include "protocol/frames.hpp"
#include "util/secret.hpp"

namespace tq {
namespace {

constexpr size_t kStartLength = 3;
constexpr uint8_t kStartByte = 0xFF;
constexpr uint8_t kEndByte = 0xFE;
constexpr size_t kEndLength = 2;
constexpr size_t kFixedBytes = kStartLength + 2 + 1 + kEndLength;  // beside data and length field
constexpr size_t kRoomBeyondData = 28;  // framing of the long form and a block of padding

bool is_start(std::span<const uint8_t> bytes) {
  return bytes[0] == kStartByte && bytes[1] == kStartByte && bytes[2] == kStartByte;
}

}  // namespace

void write_secret_frame(ByteWriter& w, uint32_t command, std::span<const uint8_t> data) {
  const size_t width = length_field_size(command);
  const size_t before = w.size();
  w.fill(kStartByte, kStartLength);
  w.number(static_cast<uint32_t>(data.size() + kFixedBytes + width), width);
  w.number(command, 2);
  w.bytes(data);
  if (!w.ok()) return;
  w.u8(low_byte_sum(w.written().subspan(before + kStartLength)));
  w.fill(kEndByte, kEndLength);
}

int32_t encrypt_in_place(std::span<uint8_t> room, size_t len, WorkKey key) {
  if (key.size() != kWorkKeyLength || room.size() < kBlockPadding || len > room.size() - kBlockPadding)
    return TQ_FAILED;
  return TQ_sm4Encrypt(room.data(), static_cast<int32_t>(len), key.data(), 0, room.data());
}

int32_t seal_secret_frame(std::span<const uint8_t> data, uint32_t command, WorkKey key,
                          std::span<uint8_t> out) {
  const size_t longest = has_long_form(command) ? size_t{INT32_MAX} : size_t{UINT16_MAX};
  const size_t needed = data.size() + kRoomBeyondData;
  if (data.empty() || needed > out.size() || needed > longest) return TQ_FAILED;
  ByteWriter w(out);
  write_secret_frame(w, command, data);
  return w.ok() ? encrypt_in_place(out, w.size(), key) : TQ_FAILED;
}

int32_t open_secret_frame(std::span<const uint8_t> frame, uint32_t command, std::span<uint8_t> out) {
  ByteReader r(frame);
  std::span<const uint8_t> start;
  std::span<const uint8_t> data;
  uint32_t length = 0;
  uint32_t code = 0;
  if (!r.take(kStartLength, start) || !is_start(start)) return TQ_FAILED;
  if (!r.number(length_field_size(command), length) || length != frame.size() || !r.number(2, code) ||
      code != command)
    return TQ_FAILED;
  if (r.size() <= 1 + kEndLength || !r.take(r.size() - 1 - kEndLength, data)) return TQ_FAILED;
  const std::span<const uint8_t> tail = r.rest();
  const bool intact =
      low_byte_sum(frame.subspan(kStartLength, frame.size() - kStartLength - tail.size())) == tail[0] &&
      tail[1] == kEndByte && tail[2] == kEndByte;
  if (!copy_bytes(data, out)) return TQ_FAILED;
  return intact ? static_cast<int32_t>(data.size()) : TQ_FAILED;
}

int32_t build_secret_request(const FrameHead& head, std::span<const uint8_t> data, WorkKey key,
                             std::span<uint8_t> out) {
  ScratchBuffer secret(data.size() + kRoomBeyondData);
  if (!secret) return TQ_FAILED;
  const int32_t len = seal_secret_frame(data, head.command, key, secret.bytes());
  return len < 0 ? TQ_FAILED : build_frame(head, secret.bytes().first(static_cast<size_t>(len)), out);
}

}  // namespace tq

// The names for callers from outside.
extern "C" {

int32_t input_secret_command_group(const uint8_t* data, uint32_t length, uint32_t command,
                                   const uint8_t* workKey, uint8_t* out, uint32_t capacity) {
  if (data == nullptr || out == nullptr) return TQ_FAILED;
  return tq::seal_secret_frame({data, length}, command, tq::work_key_at(workKey), {out, capacity});
}

int32_t output_secret_command_analysis(const uint8_t* frame, uint32_t frameLength, uint32_t command,
                                       uint8_t* out, uint32_t capacity) {
  if (frame == nullptr || out == nullptr) return TQ_FAILED;
  return tq::open_secret_frame({frame, frameLength}, command, {out, capacity});
}

}  // extern "C"
