// The session id of the last answer that this thread got from the location server.
#pragma once

#include <array>
#include <cstddef>

namespace tq {

inline constexpr size_t kSessionIdSize = 64;  // with the NUL

using SessionIdStore = std::array<char, kSessionIdSize>;

SessionIdStore& session_id_store();

}  // namespace tq
