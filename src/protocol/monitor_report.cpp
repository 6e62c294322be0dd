#include "protocol/monitor_report.h"

#include <algorithm>
#include <array>

#include "crypto/sm4_padding.h"
#include "protocol/session_values.hpp"
#include "protocol/tcp_transport.h"
#include "util/byte_cursor.hpp"
#include "util/hex.h"
#include "util/secret.hpp"

namespace tq {
namespace {

constexpr size_t kReportBuffer = 2048;
constexpr uint32_t kLongestText = 2000;
constexpr size_t kPrefixLength = 16;
constexpr size_t kBlockFraming = 3;  // length and checksum
constexpr size_t kFrameBytes = 27;   // beside the encrypted block

uint8_t card_type(const SessionConfig& cfg) {
  switch (cfg.serverRoute) {
    case TQ_ROUTE_ONE:
      return 2;
    case TQ_ROUTE_PASSPORT:
      return 1;
    default:
      return 0;
  }
}

// Length, text and checksum, encrypted in `room`. Returns the encrypted length, or TQ_FAILED.
int32_t encrypted_text(std::span<const uint8_t> text, const uint8_t* work_key, std::span<uint8_t> room) {
  ByteWriter w(room.first(room.size() - kBlockPadding));
  w.number(static_cast<uint32_t>(text.size() + kBlockFraming), 2);
  w.bytes(text);
  w.u8(low_byte_sum(w.written()));
  if (!w.ok()) return TQ_FAILED;
  return TQ_sm4Encrypt(room.data(), static_cast<int32_t>(w.size()), work_key, 0, room.data());
}

// The texts that a monitor record borrows.
struct RecordTexts {
  explicit RecordTexts(const SessionConfig& cfg) : device(cfg) {
    bytesToHexString(cfg.lastCommand, std::min<uint32_t>(cfg.lastCommandLength, TQ_LAST_COMMAND_MAX),
                     command.data());
    std::copy_n(cfg.appid, TQ_APPID_LENGTH, appid.data());
  }

  DeviceId device;
  std::array<char, 2 * TQ_LAST_COMMAND_MAX + 1> command{};
  std::array<char, TQ_APPID_LENGTH + 1> appid{};
};

void send_report(SessionConfig& cfg, ScratchBuffer& buffer, int32_t text_len, const uint8_t* work_key,
                 const uint8_t* prefix) {
  const auto capacity = static_cast<uint32_t>(buffer.size());
  const int32_t len =
      input_7219_group(&cfg, reinterpret_cast<const char*>(buffer.data()), static_cast<uint32_t>(text_len),
                       work_key, buffer.data(), capacity, prefix);
  if (len < 0) return;
  tcp_send_and_recv(&cfg, buffer.data(), static_cast<uint32_t>(len), buffer.data(), capacity, TQ_SHORT_FRAME);
}

}  // namespace
}  // namespace tq

extern "C" {

void monitor_data_parse(SessionConfig* cfg, const uint8_t* workKey, int64_t startTime, int32_t result,
                        uint32_t delay, const char* sodText, int32_t unused, const uint8_t* prefix,
                        const uint8_t* stickCardId) {
  using namespace tq;
  static_cast<void>(unused);
  if (cfg == nullptr || workKey == nullptr || stickCardId == nullptr || cfg->monitorCallback == nullptr)
    return;
  const int64_t now = host_time(*cfg);
  ScratchBuffer buffer(kReportBuffer);
  if (!buffer) return;
  const RecordTexts texts(*cfg);
  const std::string_view id = business_id(*cfg);
  monitor_param record{};
  record.reqid = id.empty() ? "" : id.data();
  record.result_code = result;
  record.decode_times = static_cast<int32_t>(elapsed(now, startTime));
  record.time_delay = static_cast<int32_t>(delay);
  record.nfc_err_code = cfg->lastStatusWord;
  record.nfc_err_cmd = texts.command.data();
  record.card_type = card_type(*cfg);
  record.device_id = texts.device.c_str();
  record.appid = texts.appid.data();
  record.sod_file = sodText == nullptr ? "" : sodText;
  bytesToHexString(stickCardId, TQ_STICK_CARD_ID_LENGTH, record.stickCard_id);

  const int32_t text_len =
      cfg->monitorCallback(&record, reinterpret_cast<char*>(buffer.data()), kLongestText);
  if (text_len < 0 || static_cast<uint32_t>(text_len) > kLongestText) return;
  send_report(*cfg, buffer, text_len, workKey, prefix);
}

int32_t input_7219_group(SessionConfig* cfg, const char* json, uint32_t jsonLength, const uint8_t* workKey,
                         uint8_t* out, uint32_t capacity, const uint8_t* prefix) {
  using namespace tq;
  if (cfg == nullptr || (json == nullptr && jsonLength != 0) || workKey == nullptr || out == nullptr)
    return TQ_FAILED;
  if (size_t{jsonLength} + kBlockFraming + kFrameBytes > UINT16_MAX - kBlockPadding) return TQ_FAILED;
  ScratchBuffer block(jsonLength + kBlockFraming + kBlockPadding);
  if (!block) return TQ_FAILED;
  const int32_t block_len = encrypted_text(as_bytes({json, jsonLength}), workKey, block.bytes());
  if (block_len < 0) return TQ_FAILED;

  ScratchBuffer payload(kPrefixLength + static_cast<size_t>(block_len));
  if (!payload) return TQ_FAILED;
  ByteWriter w(payload.bytes());
  if (prefix == nullptr) {
    w.fill(0x00, kPrefixLength);
  } else {
    w.bytes({prefix, kPrefixLength});
  }
  w.bytes(block.bytes().first(static_cast<size_t>(block_len)));
  return input_command_group(payload.data(), static_cast<uint32_t>(payload.size()), route_header(*cfg),
                             kMonitorReport, kFrameParameter, kTypeMonitor, out, capacity);
}

}  // extern "C"
