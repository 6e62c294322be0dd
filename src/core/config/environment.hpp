// The environments of the servers.
#pragma once

#include <cstddef>
#include <cstdint>

#include "core/config/session_config.h"

namespace tq {

constexpr bool is_environment(int32_t code) {
  return code == TQ_ENVIRONMENT_A || code == TQ_ENVIRONMENT_B || code == TQ_ENVIRONMENT_C;
}

// The row of an environment in a table of rows with an `environment`; the first row is for every other code.
template <typename Row, size_t N>
constexpr const Row& row_for(const Row (&rows)[N], uint32_t environment) {
  for (const Row& row : rows) {
    if (row.environment == environment) return row;
  }
  return rows[0];
}

}  // namespace tq
