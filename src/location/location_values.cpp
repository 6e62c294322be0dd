#include "location/location_values.h"

#include <string_view>

#include "core/config/session_config.h"
#include "util/hex.h"
#include "util/time_seeded_bytes.hpp"

#include TQREADER_KEYS_HEADER

namespace {

constexpr size_t kKeyDigits = 32;

struct EnvironmentKey {
  int32_t environment;
  const char* digits;
};

constexpr EnvironmentKey kKeys[] = {
    {TQ_ENVIRONMENT_A, TQREADER_LOCATION_KEY_268},  // and every other code
    {TQ_ENVIRONMENT_B, TQREADER_LOCATION_KEY_52302},
    {TQ_ENVIRONMENT_C, TQREADER_LOCATION_KEY_26814},
};

constexpr bool is_key(const EnvironmentKey& key) {
  const std::string_view digits = key.digits;
  return digits.size() == kKeyDigits &&
         digits.find_first_not_of("0123456789ABCDEFabcdef") == std::string_view::npos;
}
static_assert(is_key(kKeys[0]) && is_key(kKeys[1]) && is_key(kKeys[2]),
              "a server key must have 32 hexadecimal digits");

const char* digits_for(int32_t environment) {
  for (const EnvironmentKey& key : kKeys) {
    if (key.environment == environment) return key.digits;
  }
  return kKeys[0].digits;
}

}  // namespace

extern "C" {

int32_t scp_getPublicKey(int32_t envIdCode, uint8_t* key) {
  if (key == nullptr) return TQ_FAILED;
  return static_cast<int32_t>(scpHexStringToBytes(digits_for(envIdCode), key));
}

// Nothing in the library calls this.
int64_t scp_crate_rand_number(const ScpContext* context, uint8_t* dst, int32_t n) {
  const int64_t now = context == nullptr || context->timeSource == nullptr ? 0 : context->timeSource();
  if (dst != nullptr && n > 0) tq::fill_time_seeded(now, {dst, static_cast<size_t>(n)});
  return now;
}

}  // extern "C"
