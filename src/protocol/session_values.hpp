// Small things that several commands of a session need.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string_view>

#include "core/config/device_values.h"
#include "core/config/session_config.h"
#include "protocol/checksum.hpp"
#include "protocol/commands.hpp"
#include "util/memory.h"

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

// The application's time in milliseconds, 0 when it gave none.
inline int64_t host_time(const SessionConfig& cfg) {
  return cfg.timestampCallback == nullptr ? 0 : cfg.timestampCallback();
}

// later - earlier, for times that an application may have made up: wraps instead of overflowing.
inline int64_t elapsed(int64_t later, int64_t earlier) {
  return static_cast<int64_t>(static_cast<uint64_t>(later) - static_cast<uint64_t>(earlier));
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

// The business id of the running read, empty before the server gave one.
inline std::string_view business_id(const SessionConfig& cfg) {
  return cfg.readBuffer == nullptr ? std::string_view{} : reinterpret_cast<const char*>(cfg.readBuffer);
}

inline void release_business_id(SessionConfig& cfg) {
  tq_mem_free(cfg.readBuffer);
  cfg.readBuffer = nullptr;
}

inline std::span<const uint8_t> as_bytes(std::string_view text) {
  return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

}  // namespace tq
