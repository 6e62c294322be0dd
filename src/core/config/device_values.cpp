#include "core/config/device_values.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "core/config/host_clock.hpp"
#include "core/config/random_draw.hpp"
#include "util/secret.hpp"
#include "util/system_random.hpp"
#include "util/time_seeded_bytes.hpp"

namespace tq {

bool draw_random(SessionConfig& cfg, std::span<uint8_t> out) {
  fill_time_seeded(host_time(cfg), out);
  Secret<32> unguessable;
  for (std::span<uint8_t> left = out; !left.empty();) {
    const auto piece = unguessable.bytes().first(std::min(left.size(), unguessable.size()));
    if (!system_random(piece)) {
      wipe(out);
      return false;
    }
    for (size_t i = 0; i < piece.size(); ++i) left[i] = static_cast<uint8_t>(left[i] ^ piece[i]);
    left = left.subspan(piece.size());
  }
  return true;
}

}  // namespace tq

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
  const int64_t now = cfg == nullptr ? 0 : tq::host_time(*cfg);
  if (dst != nullptr && n > 0) tq::fill_time_seeded(now, {dst, static_cast<size_t>(n)});
  return now;
}

}  // extern "C"
