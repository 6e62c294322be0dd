#include "protocol/command_frame.h"

#include <numeric>
#include <span>

#include "crypto/sm4_padding.h"
#include "protocol/checksum.hpp"
#include "protocol/commands.hpp"
#include "protocol/status_code.hpp"
#include "util/byte_cursor.hpp"
#include "util/secret.hpp"

namespace tq {
namespace {

constexpr uint8_t kOldHeader = 0x93;  // a header that no command uses any more
constexpr uint8_t kOldVersion = 0x01;
constexpr uint8_t kFlagEncrypted = 1;
constexpr size_t kFixedRequestBytes = 9;  // header, command, 00, version, parameter, type, checksum
constexpr size_t kStatusBytes = 3;

bool is_authentication(uint32_t command) {
  return command == kAuthenticateOld || command == kAuthenticate;
}

struct Response {
  std::span<const uint8_t> payload;
  uint32_t* parameter;  // stored as soon as it has been read; may be null
};

struct Expected {
  uint8_t header;
  uint32_t command;
  uint8_t type;
};

// Takes the frame apart up to its payload; checks in the order of the fields.
int32_t parse_response(std::span<const uint8_t> frame, const Expected& expected, Response& out) {
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
  if (out.parameter != nullptr) *out.parameter = parameter;
  if (parameter < kLeastResponseParameter) return TQ_FAILED;
  if (!r.u8(type) || type != expected.type) return TQ_FAILED;
  if (r.size() < 1 || low_byte_sum(frame.subspan(1, frame.size() - 2)) != frame.back()) return TQ_FAILED;
  return r.take(r.size() - 1, out.payload) ? TQ_OK : TQ_FAILED;
}

// Decrypts by way of a block of its own, so that `out` may overlap the frame.
int32_t decrypt(std::span<const uint8_t> in, const uint8_t* work_key, std::span<uint8_t> out) {
  ScratchBuffer plain(in.size());
  if (!plain || work_key == nullptr) return TQ_FAILED;
  const int32_t len = TQ_sm4Decrypt(in.data(), static_cast<int32_t>(in.size()), work_key, 0, plain.data());
  if (len < 0 || !copy_bytes(plain.bytes(), out)) return TQ_FAILED;
  return len;
}

int32_t deliver(const Response& response, const Expected& expected, const uint8_t* work_key,
                std::span<uint8_t> out) {
  const std::span<const uint8_t> payload = response.payload;
  if (payload.empty() || payload.size() > out.size()) return TQ_FAILED;
  const bool plain =
      is_authentication(expected.command) || (expected.type == kTypeFlagged && payload[0] != kFlagEncrypted);
  if (plain) return copy_bytes(payload, out) ? static_cast<int32_t>(payload.size()) : TQ_FAILED;
  if (expected.type != kTypeFlagged) return decrypt(payload, work_key, out);
  const int32_t len = decrypt(payload.subspan(1), work_key, out.subspan(1));
  if (len < 0) return TQ_FAILED;
  out[0] = kFlagEncrypted;
  return len + 1;
}

}  // namespace
}  // namespace tq

extern "C" {

uint32_t check_sum_group(const uint8_t* bytes, uint32_t count) {
  if (bytes == nullptr) return 0;
  return std::accumulate(bytes, bytes + count, uint32_t{0});
}

int32_t input_command_group(const uint8_t* payload, uint32_t payloadLength, uint8_t header, uint32_t command,
                            uint32_t frameParameter, uint8_t typeByte, uint8_t* out, uint32_t capacity) {
  using namespace tq;
  if (out == nullptr || (payload == nullptr && payloadLength != 0)) return TQ_FAILED;
  const size_t length_width = length_field_size(command);
  const size_t total = size_t{payloadLength} + kFixedRequestBytes + length_width;
  const size_t longest = has_long_form(command) ? size_t{INT32_MAX} : size_t{UINT16_MAX};
  if (total > capacity || total > longest) return TQ_FAILED;

  const std::span<uint8_t> frame(out, total);
  const size_t head = total - payloadLength - 1;
  if (!copy_bytes({payload, payloadLength}, frame.subspan(head))) return TQ_FAILED;
  ByteWriter w(frame.first(head));
  w.u8(header);
  w.number(static_cast<uint32_t>(total), length_width);
  w.number(command, 2);
  w.u8(0x00);
  w.u8(header == kOldHeader ? kOldVersion : kRequestVersion);
  w.number(frameParameter, 2);
  w.u8(typeByte);
  frame.back() = low_byte_sum(frame.subspan(1, total - 2));
  return static_cast<int32_t>(total);
}

int32_t output_command_anlysis(const uint8_t* frame, uint32_t frameLength, uint8_t header, uint32_t command,
                               uint32_t* responseParameter, uint8_t typeByte, const uint8_t* workKey,
                               uint8_t* out, uint32_t capacity) {
  if (frame == nullptr || out == nullptr) return TQ_FAILED;
  const tq::Expected expected{header, command, typeByte};
  tq::Response response{{}, responseParameter};
  const int32_t rc = tq::parse_response({frame, frameLength}, expected, response);
  if (rc < 0) return rc;
  return tq::deliver(response, expected, workKey, {out, capacity});
}

}  // extern "C"
