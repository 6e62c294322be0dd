// What the member sessionId of the last answer said that this thread got from the location server.
#pragma once

#include <array>
#include <cstddef>

namespace tq {

inline constexpr size_t kAnswerIdSize = 64;  // with the NUL

using AnswerId = std::array<char, kAnswerIdSize>;

AnswerId& last_answer_id();

}  // namespace tq
