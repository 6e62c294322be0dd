#include "protocol/secret_frame.h"

#include "crypto/sm4_padding.h"
#include "protocol/checksum.hpp"
#include "protocol/commands.hpp"
#include "protocol/secret_frame.hpp"

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

}  // namespace tq

extern "C" {

int32_t input_secret_command_group(const uint8_t* data, uint32_t length, uint32_t command,
                                   const uint8_t* workKey, uint8_t* out, uint32_t capacity) {
  using namespace tq;
  if (data == nullptr || workKey == nullptr || out == nullptr || length == 0) return TQ_FAILED;
  const size_t longest = has_long_form(command) ? size_t{INT32_MAX} : size_t{UINT16_MAX};
  if (size_t{length} + kRoomBeyondData > capacity || size_t{length} + kRoomBeyondData > longest)
    return TQ_FAILED;
  ByteWriter w({out, capacity});
  write_secret_frame(w, command, {data, length});
  if (!w.ok()) return TQ_FAILED;
  return TQ_sm4Encrypt(out, static_cast<int32_t>(w.size()), workKey, 0, out);
}

int32_t output_secret_command_analysis(const uint8_t* frame, uint32_t frameLength, uint32_t command,
                                       uint8_t* out, uint32_t capacity) {
  using namespace tq;
  if (frame == nullptr || out == nullptr) return TQ_FAILED;
  const std::span<const uint8_t> all(frame, frameLength);
  const size_t width = length_field_size(command);
  ByteReader r(all);
  std::span<const uint8_t> start;
  std::span<const uint8_t> data;
  uint32_t length = 0;
  uint32_t code = 0;
  if (!r.take(kStartLength, start) || !is_start(start)) return TQ_FAILED;
  if (!r.number(width, length) || length != frameLength || !r.number(2, code) || code != command)
    return TQ_FAILED;
  if (r.size() <= 1 + kEndLength || !r.take(r.size() - 1 - kEndLength, data)) return TQ_FAILED;
  const std::span<const uint8_t> tail = r.rest();
  const bool intact =
      low_byte_sum(all.subspan(kStartLength, frameLength - kStartLength - tail.size())) == tail[0] &&
      tail[1] == kEndByte && tail[2] == kEndByte;
  if (!copy_bytes(data, {out, capacity})) return TQ_FAILED;
  return intact ? static_cast<int32_t>(data.size()) : TQ_FAILED;
}

}  // extern "C"
