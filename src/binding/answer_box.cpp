#include "binding/answer_box.hpp"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "core/session/read_session.hpp"
#include "util/no_destroy.hpp"

namespace tq {
namespace {

struct Box {
  std::mutex mutex;
  std::condition_variable answered;
  Question current = 0;
  const SessionConfig* asked_by = nullptr;
  int64_t time = 0;
  std::array<char, kBridgeText> text{};
  size_t text_len = 0;  // as the application gave it, longer than `text` when it did not fit
  bool complete = false;
};

Box& box() {
  static NoDestroy<Box> the_box;
  return the_box.get();
}

Question ask() {
  Box& b = box();
  const std::lock_guard lock(b.mutex);
  b.asked_by = current_read_owner();
  b.time = 0;
  b.text_len = 0;
  b.complete = false;
  return ++b.current;
}

void await(Box& b, std::unique_lock<std::mutex>& lock, Question question) {
  b.answered.wait_for(lock, std::chrono::milliseconds(kAnswerLimitMs),
                      [&] { return b.complete || b.current != question; });
}

bool is_object_text(std::string_view text) {
  return !text.empty() && text.front() == '{' && text.back() == '}';
}

}  // namespace

Question ask_for_time() {
  return ask();
}

void answer_time(Question question, int64_t value) {
  Box& b = box();
  const std::lock_guard lock(b.mutex);
  if (b.current != question) return;
  b.time = value;
  b.complete = value != 0;
  b.answered.notify_all();
}

int64_t time_so_far() {
  Box& b = box();
  const std::lock_guard lock(b.mutex);
  return b.time;
}

int64_t await_time(Question question) {
  Box& b = box();
  std::unique_lock lock(b.mutex);
  await(b, lock, question);
  return b.current == question ? b.time : 0;
}

Question ask_for_text() {
  return ask();
}

void answer_text(Question question, std::string_view text) {
  Box& b = box();
  const std::lock_guard lock(b.mutex);
  if (b.current != question) return;
  b.text_len = text.size();
  std::copy_n(text.begin(), std::min(text.size(), b.text.size()), b.text.begin());
  b.complete = is_object_text(text);
  b.answered.notify_all();
}

int32_t await_text(Question question, std::span<char> out) {
  Box& b = box();
  std::unique_lock lock(b.mutex);
  await(b, lock, question);
  if (b.current != question) return 0;
  if (b.text_len > out.size() || b.text_len >= b.text.size()) return -1;
  std::copy_n(b.text.begin(), b.text_len, out.begin());
  return static_cast<int32_t>(b.text_len);
}

void drop_question(Question question) {
  Box& b = box();
  const std::lock_guard lock(b.mutex);
  if (b.current != question) return;
  ++b.current;
  b.answered.notify_all();
}

void abandon_answers(const SessionConfig* owner) {
  Box& b = box();
  const std::lock_guard lock(b.mutex);
  if (b.asked_by != owner) return;
  ++b.current;
  b.answered.notify_all();
}

}  // namespace tq
