#include "core/config/device_values.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "util/time_seeded_bytes.hpp"

extern "C" {

int32_t tq_get_device_id(const SessionConfig* cfg, char* dst, uint32_t capacity) {
  if (cfg == nullptr || dst == nullptr) return TQ_FAILED;
  // A text that fills its field runs on into the next one, so its end is looked for in all three together.
  static_assert(offsetof(SessionConfig, sn3) ==
                offsetof(SessionConfig, sn1) + 2 * sizeof(SessionConfig::sn1));
  constexpr size_t kFields = 3 * sizeof(SessionConfig::sn1);
  const char* text = reinterpret_cast<const char*>(cfg) + offsetof(SessionConfig, sn1);
  const size_t len = ::strnlen(text, kFields);
  if (len > capacity) return TQ_FAILED;
  std::copy_n(text, len, dst);
  return static_cast<int32_t>(len);
}

int64_t create_rand_number(SessionConfig* cfg, uint8_t* dst, int32_t n) {
  const int64_t now = cfg == nullptr || cfg->timestampCallback == nullptr ? 0 : cfg->timestampCallback();
  if (dst != nullptr && n > 0) tq::fill_time_seeded(now, {dst, static_cast<size_t>(n)});
  return now;
}

}  // extern "C"
