// Where a thread waits for the application's answer to its question. One question is open at a time; a late
// answer to an earlier one is dropped.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string_view>

#include "core/config/session_config.h"

namespace tq {

// How long an answer is waited for.
constexpr int64_t kAnswerLimitMs = 500;

// The room for texts that cross the bridge, with their NUL.
constexpr size_t kBridgeText = 2048;

// The number of a question, which its answer has to name. 0 is none.
using QuestionNumber = uint64_t;

// An open question. A second thread's question waits until the first is closed.
class Question {
 public:
  Question();
  ~Question();
  Question(const Question&) = delete;
  Question& operator=(const Question&) = delete;

  QuestionNumber number() const { return number_; }

  // The time: any value but 0 is an answer. So far, and after waiting for at most 500 ms; 0 without one.
  int64_t time_so_far() const;
  int64_t await_time() const;

  // The monitor text: an answer starts with "{" and ends with "}". Waits for at most 500 ms and copies it, or
  // what came instead, to `out`. Returns its length, or -1 when it does not fit `out` or the room of the
  // bridge.
  int32_t await_text(std::span<char> out) const;

 private:
  QuestionNumber number_;
};

// From the JavaScript thread.
void answer_time(QuestionNumber question, int64_t value);
void answer_text(QuestionNumber question, std::string_view text);

// Ends the waiting for the answer to this question.
void drop_question(QuestionNumber question);

// Ends the waiting of the read that was started with `owner`.
void abandon_answers(const SessionConfig* owner);

}  // namespace tq
