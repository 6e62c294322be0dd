#include "protocol/server_authentication.h"

#include <algorithm>
#include <array>

#include "core/result_code.hpp"
#include "crypto/sm4_padding.h"
#include "protocol/protocol_key.h"
#include "protocol/server_authentication.hpp"
#include "protocol/session_values.hpp"
#include "protocol/tcp_transport.h"
#include "util/byte_cursor.hpp"
#include "util/secret.hpp"

namespace tq {
namespace {

constexpr size_t kLongestBlock = 24 + 32 + 36 + TQ_DEVICE_ID_MAX;
constexpr size_t kEnvelopeRoom = 32;
constexpr size_t kLongestBody = 1 + TQ_APPID_LENGTH + kLongestBlock + kBlockPadding + kEnvelopeRoom;
constexpr uint8_t kFullFormMark = 0x10;
constexpr uint8_t kDeviceMark = 0x0F;
constexpr uint8_t kEndMark = 0x02;
constexpr size_t kReservedLength = 16;
constexpr size_t kEnvelopeLength = 19;  // 00, its length, key, checksum
constexpr uint32_t kParameterBeyondBlock = 28;
constexpr size_t kLeastAnswerBlock = 19;

std::span<const uint8_t> appid_of(const SessionConfig& cfg) {
  return std::span(cfg.appid).first(TQ_APPID_LENGTH);
}

void write_full_block(ByteWriter& w, const SessionConfig& cfg, const DeviceId& device,
                      StickCardId stick_card_id) {
  const bool has_digest = cfg.packageDigestSet == 1;
  w.u8(cfg.authMode);
  w.u8(kFullFormMark);
  w.u8(cfg.terId);
  w.bytes(appid_of(cfg));
  w.u8((has_digest ? 1U : 0U) | static_cast<unsigned>(cfg.reqidVersion) << 4);
  if (has_digest) w.bytes(cfg.packageDigest);
  w.u8(kDeviceMark);
  w.bytes(stick_card_id);
  w.u8(static_cast<unsigned>(device.bytes().size()));
  w.bytes(device.bytes());
  w.fill(0xFF, kReservedLength);
  w.u8(kEndMark);
}

void write_compact_block(ByteWriter& w, const SessionConfig& cfg, const DeviceId& device) {
  w.u8(cfg.authMode);
  w.u8(kFullFormMark);
  w.bytes(appid_of(cfg));
  w.u8(kDeviceMark | static_cast<unsigned>(cfg.reqidVersion) << 4);
  w.u8(static_cast<unsigned>(device.bytes().size()));
  w.bytes(device.bytes());
}

// The authentication block, encrypted in place. Returns its encrypted length, or TQ_FAILED.
int32_t encrypted_block(const SessionConfig& cfg, StickCardId stick_card_id, WorkKey work_key,
                        std::span<uint8_t> room) {
  const DeviceId device(cfg);
  if (!device.fits()) return TQ_FAILED;
  ByteWriter w(room.first(room.size() - kBlockPadding));
  if (cfg.authMode == 0) {
    write_full_block(w, cfg, device, stick_card_id);
  } else {
    write_compact_block(w, cfg, device);
  }
  w.u8(low_byte_sum(w.written()));
  return w.ok() ? encrypt_in_place(room, w.size(), work_key) : TQ_FAILED;
}

// The fresh key under the environment's key: 32 bytes.
bool write_key_envelope(ByteWriter& out, const SessionConfig& cfg, std::span<const uint8_t> fresh_key) {
  Secret<kWorkKeyLength> protocol_key;
  if (TQ_getSm4PubulicKey(cfg.envIdCode, protocol_key.data()) < 0) return false;
  TQ_sm4InitIv(protocol_key.data(), protocol_key.data() + kKeyLength);
  Secret<kEnvelopeLength + kBlockPadding> envelope;
  ByteWriter w(envelope.bytes());
  w.number(kEnvelopeLength, 2);
  w.bytes(fresh_key);
  w.u8(low_byte_sum(w.written()));
  const int32_t len = encrypt_in_place(envelope.bytes(), w.size(), protocol_key.bytes());
  if (len < 0) return false;
  out.bytes(envelope.bytes().first(static_cast<size_t>(len)));
  return out.ok();
}

// A key of our own for the request and the answer to it, and the vector that belongs to it.
bool make_fresh_key(SessionConfig& cfg, WorkKeyBlock work_key) {
  if (!draw_random(cfg, work_key.first(kKeyLength))) return false;
  TQ_sm4InitIv(work_key.data(), work_key.data() + kKeyLength);
  return true;
}

// What stands between the session key and the checksum in the answer to 0x7500.
int32_t take_answer_values(SessionConfig& cfg, ByteReader& r, NewStickCardId stick_card_id) {
  uint8_t id_length = 0;
  uint8_t flags = 0;
  std::span<const uint8_t> id;
  std::span<const uint8_t> stick;
  if (!r.skip(1) || !r.u8(id_length) || !r.take(id_length, id)) return TQ_FAILED;
  if (!r.take(TQ_STICK_CARD_ID_LENGTH, stick) || !r.u8(flags) || has_nul(id)) return TQ_FAILED;
  if (!keep_business_id(cfg, id)) return TQ_FAILED;
  std::copy(stick.begin(), stick.end(), stick_card_id.begin());
  cfg.monitorTiming = flags >> 4;
  return TQ_OK;
}

// The decrypted answer in its full form. Bytes behind the checksum are not looked at.
int32_t take_full_answer(SessionConfig& cfg, std::span<const uint8_t> block, uint32_t command,
                         WorkKeyBlock work_key, NewStickCardId stick_card_id) {
  ByteReader r(block);
  uint32_t length = 0;
  std::span<const uint8_t> key;
  if (block.size() < kLeastAnswerBlock || !r.number(2, length) || length != block.size()) return TQ_FAILED;
  if (!r.take(kKeyLength, key)) return TQ_FAILED;
  std::copy(key.begin(), key.end(), work_key.begin());
  if (command == kAuthenticate) {
    if (int32_t rc = take_answer_values(cfg, r, stick_card_id); rc < 0) return rc;
  }
  const uint8_t expected_sum = low_byte_sum(block.first(block.size() - r.size()));
  uint8_t sum = 0;
  if (r.u8(sum) && sum == expected_sum) return TQ_OK;
  if (command == kAuthenticate) release_business_id(cfg);
  return TQ_FAILED;
}

int32_t take_compact_answer(std::span<const uint8_t> block) {
  return block.size() == 2 && block[0] == block[1] ? int32_t{block[0]} : int32_t{TQ_FAILED};
}

// Builds the request and exchanges it in one buffer. Returns the answer's length or the read's result code.
int32_t exchange_7500(SessionConfig& cfg, std::span<uint8_t> buffer, WorkKeyBlock work_key,
                      StickCardId stick_card_id, uint32_t& delay) {
  const int32_t len = build_authentication(cfg, work_key, stick_card_id, buffer);
  if (len < 0) return TQ_REQUEST_NOT_BUILT;
  const int64_t before = host_time(cfg);
  const auto capacity = static_cast<uint32_t>(buffer.size());
  const int32_t num_received = tcp_send_and_recv(&cfg, buffer.data(), static_cast<uint32_t>(len),
                                                 buffer.data(), capacity, TQ_SHORT_FRAME);
  if (num_received < 0) return TQ_EXCHANGE_FAILED;
  delay = static_cast<uint32_t>(elapsed(host_time(cfg), before));
  return num_received;
}

int32_t authenticate_connected(SessionConfig& cfg, WorkKeyBlock work_key, uint32_t& delay,
                               NewStickCardId stick_card_id) {
  ScratchBuffer buffer(TQ_AUTHENTICATION_BUFFER);
  if (!buffer) return TQ_REQUEST_NOT_BUILT;
  const int32_t len = exchange_7500(cfg, buffer.bytes(), work_key, stick_card_id, delay);
  if (len < 0) return len;
  const auto answer = buffer.bytes().first(static_cast<size_t>(len));
  return failed_as(TQ_RESPONSE_MALFORMED,
                   take_authentication(cfg, answer, kAuthenticate, work_key, stick_card_id));
}

}  // namespace

int32_t authenticate(SessionConfig& cfg, WorkKeyBlock work_key, uint32_t& delay,
                     NewStickCardId stick_card_id) {
  if (tq_socket_connect(&cfg) < 0) return TQ_CONNECT_FAILED;
  const int32_t rc = authenticate_connected(cfg, work_key, delay, stick_card_id);
  if (rc >= 0) return TQ_OK;
  tq_socket_close();
  return rc;
}

int32_t build_authentication(SessionConfig& cfg, WorkKeyBlock work_key, StickCardId stick_card_id,
                             std::span<uint8_t> out) {
  if (!make_fresh_key(cfg, work_key)) return TQ_FAILED;
  Secret<kLongestBlock + kBlockPadding> block;
  const int32_t block_len = encrypted_block(cfg, stick_card_id, work_key, block.bytes());
  if (block_len < 0) return TQ_FAILED;
  std::array<uint8_t, kLongestBody> body;
  ByteWriter w(body);
  w.u8(kFullFormMark);
  w.bytes(appid_of(cfg));
  w.bytes(block.bytes().first(static_cast<size_t>(block_len)));
  if (!write_key_envelope(w, cfg, work_key.first(kKeyLength))) return TQ_FAILED;
  return build_frame({route_header(cfg), kAuthenticate, kTypeAuthenticate}, w.written(), out,
                     static_cast<uint32_t>(block_len) + kParameterBeyondBlock);
}

int32_t take_authentication(SessionConfig& cfg, std::span<const uint8_t> frame, uint32_t command,
                            WorkKeyBlock work_key, NewStickCardId stick_card_id) {
  ScratchBuffer payload(frame.size());
  ScratchBuffer block(frame.size());
  if (!payload || !block) return TQ_FAILED;
  const uint8_t header = command == kAuthenticateOld ? kHeaderIdentityCard : route_header(cfg);
  uint32_t parameter = 0;
  const int32_t len = open_frame(frame, {header, command}, work_key, payload.bytes(), &parameter);
  if (len < 0) return len;
  const uint32_t opaque = parameter - kLeastResponseParameter;  // a field that only the server understands
  if (opaque >= static_cast<uint32_t>(len)) return TQ_FAILED;
  const int32_t block_len = TQ_sm4Decrypt(payload.data() + opaque, len - static_cast<int32_t>(opaque),
                                          work_key.data(), 0, block.data());
  if (block_len < 0) return TQ_FAILED;
  const std::span<const uint8_t> plain = block.bytes().first(static_cast<size_t>(block_len));
  if (command == kAuthenticate && cfg.authMode != 0) return take_compact_answer(plain);
  return take_full_answer(cfg, plain, command, work_key, stick_card_id);
}

}  // namespace tq

// The names for callers from outside.
extern "C" {

int32_t server_authentication(SessionConfig* cfg, uint8_t* workKey, uint32_t* delay, int32_t unused,
                              uint8_t* stickCardId) {
  static_cast<void>(unused);
  if (cfg == nullptr || workKey == nullptr || stickCardId == nullptr) return TQ_REQUEST_NOT_BUILT;
  uint32_t nobody_asked = 0;
  return tq::authenticate(*cfg, tq::WorkKeyBlock(workKey, tq::kWorkKeyLength),
                          delay == nullptr ? nobody_asked : *delay,
                          tq::NewStickCardId(stickCardId, TQ_STICK_CARD_ID_LENGTH));
}

int32_t input_7500_group(SessionConfig* cfg, uint8_t* scratch, uint8_t* workKey, const uint8_t* stickCardId,
                         uint8_t* out, uint32_t capacity) {
  if (cfg == nullptr || scratch == nullptr || workKey == nullptr || stickCardId == nullptr || out == nullptr)
    return TQ_FAILED;
  return tq::build_authentication(*cfg, tq::WorkKeyBlock(workKey, tq::kWorkKeyLength),
                                  tq::StickCardId(stickCardId, TQ_STICK_CARD_ID_LENGTH), {out, capacity});
}

int32_t output_7100_and_7500_analysis(SessionConfig* cfg, const uint8_t* frame, uint32_t frameLength,
                                      uint32_t command, uint8_t* workKey, uint8_t* stickCardId) {
  if (cfg == nullptr || frame == nullptr || workKey == nullptr || stickCardId == nullptr) return TQ_FAILED;
  return tq::take_authentication(*cfg, {frame, frameLength}, command,
                                 tq::WorkKeyBlock(workKey, tq::kWorkKeyLength),
                                 tq::NewStickCardId(stickCardId, TQ_STICK_CARD_ID_LENGTH));
}

}  // extern "C"
