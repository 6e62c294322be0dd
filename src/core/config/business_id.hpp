// The business id that the decode server gives a read. The record keeps it in `readBuffer`.
#pragma once

#include <algorithm>
#include <cstdint>
#include <span>
#include <string_view>

#include "core/config/session_config.h"
#include "util/memory.h"

namespace tq {

// Empty before the server gave one.
inline std::string_view business_id(const SessionConfig& cfg) {
  return cfg.readBuffer == nullptr ? std::string_view{} : reinterpret_cast<const char*>(cfg.readBuffer);
}

inline void release_business_id(SessionConfig& cfg) {
  tq_mem_free(cfg.readBuffer);
  cfg.readBuffer = nullptr;
}

// Keeps a copy in the place of what was there. False, and nothing changed, when there is no memory.
[[nodiscard]] inline bool keep_business_id(SessionConfig& cfg, std::span<const uint8_t> id) {
  auto* text = static_cast<uint8_t*>(tq_mem_malloc(id.size() + 1));
  if (text == nullptr) return false;
  std::copy(id.begin(), id.end(), text);
  text[id.size()] = '\0';
  release_business_id(cfg);
  cfg.readBuffer = text;
  return true;
}

// For a copy of a record: the id belongs to the record that it was copied from.
inline void disown_business_id(SessionConfig& copy) {
  copy.readBuffer = nullptr;
}

}  // namespace tq
