// Where a worker waits for the application's answer to one question. A late answer to an earlier question is
// dropped.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string_view>

#include "core/config/session_config.h"

namespace tq {

// How long a worker waits for an answer.
constexpr int64_t kAnswerLimitMs = 500;

// The room for texts that cross the bridge, with their NUL.
constexpr size_t kBridgeText = 2048;

// The number of a question, which its answer has to name.
using Question = uint64_t;

// The time: any value but 0 is an answer.
Question ask_for_time();
void answer_time(Question question, int64_t value);
// The answer so far, 0 when there is none.
int64_t time_so_far();
// Waits for the answer, for at most 500 ms; 0 without one.
int64_t await_time(Question question);

// The monitor text: an answer starts with "{" and ends with "}".
Question ask_for_text();
void answer_text(Question question, std::string_view text);
// Waits for the answer, for at most 500 ms, and copies it, or what came instead, to `out`. Returns its
// length, or -1 when it does not fit `out` or the room of the bridge.
int32_t await_text(Question question, std::span<char> out);

// Ends the waiting for the answer to this question.
void drop_question(Question question);

// Ends the waiting of the read that was started with `owner`.
void abandon_answers(const SessionConfig* owner);

}  // namespace tq
