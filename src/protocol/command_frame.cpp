#include "protocol/command_frame.h"

#include <numeric>

#include "crypto/sm4_padding.h"
#include "protocol/frames.hpp"
#include "util/secret.hpp"

namespace tq {
namespace {

constexpr uint8_t kVersion = 0x09;
constexpr uint8_t kOldHeader = 0x93;  // a header that no command uses any more
constexpr uint8_t kOldVersion = 0x01;
constexpr uint8_t kFlagEncrypted = 1;
constexpr size_t kFixedRequestBytes = 9;  // header, command, 00, version, parameter, type, checksum
constexpr size_t kStatusBytes = 3;

bool is_authentication(uint32_t command) {
  return command == kAuthenticateOld || command == kAuthenticate;
}

// Takes the frame apart up to its payload; checks in the order of the fields. The parameter is stored as soon
// as it has been read.
int32_t parse_response(std::span<const uint8_t> frame, const FrameHead& expected,
                       std::span<const uint8_t>& payload, uint32_t* parameter_out) {
  ByteReader r(frame);
  uint8_t header = 0;
  uint32_t length = 0;
  uint32_t command = 0;
  std::span<const uint8_t> status;
  if (!r.u8(header) || header != expected.header) return TQ_FAILED;
  if (!r.number(length_field_size(expected.command), length) || length != frame.size()) return TQ_FAILED;
  if (!r.number(2, command) || !r.take(kStatusBytes, status)) return TQ_FAILED;
  if (command != expected.command) {
    return is_authentication(expected.command) && command == kErrorReply ? status_code(status) : TQ_FAILED;
  }
  if (status[0] != 0 || status[1] != 0 || status[2] != 0) return status_code(status);
  uint8_t type = 0;
  uint32_t parameter = 0;
  if (!r.number(2, parameter)) return TQ_FAILED;
  if (parameter_out != nullptr) *parameter_out = parameter;
  if (parameter < kLeastResponseParameter) return TQ_FAILED;
  if (!r.u8(type) || type != expected.type) return TQ_FAILED;
  if (r.size() < 1 || low_byte_sum(frame.subspan(1, frame.size() - 2)) != frame.back()) return TQ_FAILED;
  return r.take(r.size() - 1, payload) ? TQ_OK : TQ_FAILED;
}

// Decrypts by way of a block of its own, so that `out` may overlap the frame.
int32_t decrypt(std::span<const uint8_t> in, WorkKey key, std::span<uint8_t> out) {
  ScratchBuffer plain(in.size());
  if (!plain || key.size() != kWorkKeyLength) return TQ_FAILED;
  const int32_t len = TQ_sm4Decrypt(in.data(), static_cast<int32_t>(in.size()), key.data(), 0, plain.data());
  if (len < 0 || !copy_bytes(plain.bytes(), out)) return TQ_FAILED;
  return len;
}

int32_t deliver(std::span<const uint8_t> payload, const FrameHead& expected, WorkKey key,
                std::span<uint8_t> out) {
  if (payload.empty() || payload.size() > out.size()) return TQ_FAILED;
  const bool plain =
      is_authentication(expected.command) || (expected.type == kTypeFlagged && payload[0] != kFlagEncrypted);
  if (plain) return copy_bytes(payload, out) ? static_cast<int32_t>(payload.size()) : TQ_FAILED;
  if (expected.type != kTypeFlagged) return decrypt(payload, key, out);
  const int32_t len = decrypt(payload.subspan(1), key, out.subspan(1));
  if (len < 0) return TQ_FAILED;
  out[0] = kFlagEncrypted;
  return len + 1;
}

}  // namespace

uint8_t low_byte_sum(std::span<const uint8_t> bytes) {
  return static_cast<uint8_t>(std::accumulate(bytes.begin(), bytes.end(), uint32_t{0}));
}

int32_t status_code(std::span<const uint8_t> status) {
  int32_t value = 0;
  for (size_t i = 0; i < 2 * status.size(); ++i) {
    const uint8_t byte = status[i / 2];
    const int32_t digit = (i % 2 == 0 ? byte >> 4 : byte & 0x0F);
    if (digit > 9 && digit < 15) break;
    value = value * 10 + digit % 15;
  }
  return value == 0 ? TQ_FAILED : -value;
}

int32_t build_frame(const FrameHead& head, std::span<const uint8_t> payload, std::span<uint8_t> out,
                    uint32_t parameter) {
  const size_t length_width = length_field_size(head.command);
  const size_t total = payload.size() + kFixedRequestBytes + length_width;
  const size_t longest = has_long_form(head.command) ? size_t{INT32_MAX} : size_t{UINT16_MAX};
  if (total > out.size() || total > longest) return TQ_FAILED;

  const std::span<uint8_t> frame = out.first(total);
  const size_t before = total - payload.size() - 1;
  if (!copy_bytes(payload, frame.subspan(before))) return TQ_FAILED;
  ByteWriter w(frame.first(before));
  w.u8(head.header);
  w.number(static_cast<uint32_t>(total), length_width);
  w.number(head.command, 2);
  w.u8(0x00);
  w.u8(head.header == kOldHeader ? kOldVersion : kVersion);
  w.number(parameter, 2);
  w.u8(head.type);
  frame.back() = low_byte_sum(frame.subspan(1, total - 2));
  return static_cast<int32_t>(total);
}

int32_t open_frame(std::span<const uint8_t> frame, const FrameHead& expected, WorkKey key,
                   std::span<uint8_t> out, uint32_t* parameter) {
  std::span<const uint8_t> payload;
  const int32_t rc = parse_response(frame, expected, payload, parameter);
  return rc < 0 ? rc : deliver(payload, expected, key, out);
}

}  // namespace tq

// The names for callers from outside.
extern "C" {

uint32_t check_sum_group(const uint8_t* bytes, uint32_t count) {
  if (bytes == nullptr) return 0;
  return std::accumulate(bytes, bytes + count, uint32_t{0});
}

int32_t input_command_group(const uint8_t* payload, uint32_t payloadLength, uint8_t header, uint32_t command,
                            uint32_t frameParameter, uint8_t typeByte, uint8_t* out, uint32_t capacity) {
  if (out == nullptr || (payload == nullptr && payloadLength != 0)) return TQ_FAILED;
  return tq::build_frame({header, command, typeByte}, {payload, payloadLength}, {out, capacity},
                         frameParameter);
}

int32_t output_command_anlysis(const uint8_t* frame, uint32_t frameLength, uint8_t header, uint32_t command,
                               uint32_t* responseParameter, uint8_t typeByte, const uint8_t* workKey,
                               uint8_t* out, uint32_t capacity) {
  if (frame == nullptr || out == nullptr) return TQ_FAILED;
  return tq::open_frame({frame, frameLength}, {header, command, typeByte}, tq::work_key_at(workKey),
                        {out, capacity}, responseParameter);
}

}  // extern "C"
