#include "protocol/monitor_report.h"

#include <algorithm>
#include <array>

#include "core/session/read_session.hpp"
#include "protocol/monitor_report.hpp"
#include "protocol/session_values.hpp"
#include "protocol/tcp_transport.h"
#include "util/byte_cursor.hpp"
#include "util/hex.hpp"
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
int32_t encrypted_text(std::span<const uint8_t> text, WorkKey key, std::span<uint8_t> room) {
  ByteWriter w(room.first(room.size() - kBlockPadding));
  w.number(static_cast<uint32_t>(text.size() + kBlockFraming), 2);
  w.bytes(text);
  w.u8(low_byte_sum(w.written()));
  return w.ok() ? encrypt_in_place(room, w.size(), key) : TQ_FAILED;
}

std::span<const uint8_t> prefix_at(const uint8_t* bytes) {
  return {bytes, bytes == nullptr ? 0 : kPrefixLength};
}

// The texts that a monitor record borrows.
struct RecordTexts {
  explicit RecordTexts(const SessionConfig& cfg) : device(cfg) {
    write_hex(std::span(cfg.lastCommand).first(std::min<size_t>(cfg.lastCommandLength, TQ_LAST_COMMAND_MAX)),
              command.data());
    std::copy_n(cfg.appid, TQ_APPID_LENGTH, appid.data());
  }

  DeviceId device;
  std::array<char, 2 * TQ_LAST_COMMAND_MAX + 1> command{};
  std::array<char, TQ_APPID_LENGTH + 1> appid{};
};

}  // namespace

bool send_monitor_report(SessionConfig& cfg, const MonitorReport& report) {
  if (cfg.monitorCallback == nullptr) return true;
  const int64_t now = host_time(cfg);
  ScratchBuffer buffer(kReportBuffer);
  if (!buffer) return true;
  const RecordTexts texts(cfg);
  const std::string_view id = business_id(cfg);
  monitor_param record{};
  record.reqid = id.empty() ? "" : id.data();
  record.result_code = report.result;
  record.decode_times = static_cast<int32_t>(elapsed(now, report.start_time));
  record.time_delay = static_cast<int32_t>(report.delay);
  record.nfc_err_code = cfg.lastStatusWord;
  record.nfc_err_cmd = texts.command.data();
  record.card_type = card_type(cfg);
  record.device_id = texts.device.c_str();
  record.appid = texts.appid.data();
  record.sod_file = report.sod_text;
  write_hex(report.stick_card_id, record.stickCard_id);

  if (current_read_stopped()) return false;
  const int32_t text_len = cfg.monitorCallback(&record, reinterpret_cast<char*>(buffer.data()), kLongestText);
  if (text_len == kNotAsked && current_read_stopped()) return false;
  if (text_len < 0 || static_cast<uint32_t>(text_len) > kLongestText) return true;
  const auto text = buffer.bytes().first(static_cast<size_t>(text_len));
  const int32_t len = build_monitor_request(cfg, text, report.work_key, buffer.bytes(), report.prefix);
  if (len < 0) return true;
  tcp_send_and_recv(&cfg, buffer.data(), static_cast<uint32_t>(len), buffer.data(), kReportBuffer,
                    TQ_SHORT_FRAME);
  return true;
}

int32_t build_monitor_request(const SessionConfig& cfg, std::span<const uint8_t> text, WorkKey key,
                              std::span<uint8_t> out, std::span<const uint8_t> prefix) {
  if (text.size() + kBlockFraming + kFrameBytes > UINT16_MAX - kBlockPadding) return TQ_FAILED;
  ScratchBuffer payload(kPrefixLength + text.size() + kBlockFraming + kBlockPadding);
  if (!payload || !copy_bytes(prefix, payload.bytes().first(kPrefixLength))) return TQ_FAILED;
  const int32_t block_len = encrypted_text(text, key, payload.bytes().subspan(kPrefixLength));
  if (block_len < 0) return TQ_FAILED;
  return build_frame({route_header(cfg), kMonitorReport, kTypeMonitor},
                     payload.bytes().first(kPrefixLength + static_cast<size_t>(block_len)), out);
}

}  // namespace tq

// The names for callers from outside.
extern "C" {

void monitor_data_parse(SessionConfig* cfg, const uint8_t* workKey, int64_t startTime, int32_t result,
                        uint32_t delay, const char* sodText, int32_t unused, const uint8_t* prefix,
                        const uint8_t* stickCardId) {
  static_cast<void>(unused);
  if (cfg == nullptr || workKey == nullptr || stickCardId == nullptr) return;
  static_cast<void>(tq::send_monitor_report(*cfg, {.work_key = tq::work_key_at(workKey),
                                                   .start_time = startTime,
                                                   .result = result,
                                                   .delay = delay,
                                                   .sod_text = sodText == nullptr ? "" : sodText,
                                                   .prefix = tq::prefix_at(prefix),
                                                   .stick_card_id = {stickCardId, TQ_STICK_CARD_ID_LENGTH}}));
}

int32_t input_7219_group(SessionConfig* cfg, const char* json, uint32_t jsonLength, const uint8_t* workKey,
                         uint8_t* out, uint32_t capacity, const uint8_t* prefix) {
  if (cfg == nullptr || (json == nullptr && jsonLength != 0) || out == nullptr) return TQ_FAILED;
  return tq::build_monitor_request(*cfg, tq::as_bytes({json, jsonLength}), tq::work_key_at(workKey),
                                   {out, capacity}, tq::prefix_at(prefix));
}

}  // extern "C"
