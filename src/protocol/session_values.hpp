// Small things that several commands of a session need.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "core/config/business_id.hpp"
#include "core/config/device_values.h"
#include "core/config/host_clock.hpp"
#include "core/config/random_draw.hpp"
#include "core/config/session_config.h"
#include "protocol/frames.hpp"
#include "util/byte_cursor.hpp"
#include "util/text.hpp"

namespace tq {

// Frame header of the commands that both kinds of read send.
inline uint8_t route_header(const SessionConfig& cfg) {
  switch (cfg.serverRoute) {
    case TQ_ROUTE_ONE:
      return kHeaderRouteOne;
    case TQ_ROUTE_PASSPORT:
      return kHeaderPassport;
    default:
      return kHeaderIdentityCard;
  }
}

// The configured device id.
class DeviceId {
 public:
  explicit DeviceId(const SessionConfig& cfg)
      : len_(tq_get_device_id(&cfg, text_.data(), static_cast<uint32_t>(TQ_DEVICE_ID_MAX))) {}

  bool fits() const { return len_ >= 0; }
  std::span<const uint8_t> bytes() const {
    return {reinterpret_cast<const uint8_t*>(text_.data()), static_cast<size_t>(len_ < 0 ? 0 : len_)};
  }
  const char* c_str() const { return text_.data(); }

 private:
  std::array<char, TQ_DEVICE_ID_MAX + 1> text_{};
  int32_t len_;
};

// What the first card command of a read starts with: random bytes, the device id and the modes. False when
// the device id is too long or the system has no random bytes.
constexpr size_t kRequestStartMax = 4 + 1 + TQ_DEVICE_ID_MAX + 3;
inline bool write_request_start(ByteWriter& w, SessionConfig& cfg) {
  const DeviceId device(cfg);
  if (!device.fits()) return false;
  std::array<uint8_t, 4> random{};
  if (!draw_random(cfg, random)) return false;
  const auto nibbles = [](unsigned high, unsigned low) { return high << 4 | (low & 0x0F); };
  w.bytes(random);
  w.u8(static_cast<unsigned>(device.bytes().size()));
  w.bytes(device.bytes());
  w.u8(nibbles(cfg.readMode, cfg.decodeMode));
  w.u8(nibbles(cfg.frameFlag, cfg.queryInfo[0]));
  w.u8(nibbles(cfg.queryInfo[1], cfg.queryInfo[2]));
  return w.ok();
}

}  // namespace tq
