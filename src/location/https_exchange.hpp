// What the call of https_exchange.h does, for the library itself.
#pragma once

#include <cstdint>
#include <span>

#include "location/scp_context.h"

namespace tq {

// The length of the answer, or TQ_FAILED. `request` and `answer` may be the same bytes.
[[nodiscard]] int32_t exchange_by_https(const ScpContext& context, std::span<const uint8_t> request,
                                        std::span<uint8_t> answer);

}  // namespace tq
