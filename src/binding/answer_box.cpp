#include "binding/answer_box.hpp"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "core/session/read_session.hpp"
#include "util/no_destroy.hpp"
#include "util/secret.hpp"

namespace tq {
namespace {

struct Box {
  std::mutex mutex;
  std::condition_variable changed;
  QuestionNumber current = 0;
  bool open = false;
  bool settled = false;  // answered well, or given up
  bool dropped = false;  // never put to the application
  const SessionConfig* asked_by = nullptr;
  int64_t time = 0;
  std::array<char, kBridgeText> text{};
  size_t text_len = 0;  // as the application gave it, longer than `text` when it did not fit
};

Box& box() {
  static NoDestroy<Box> the_box;
  return the_box.get();
}

bool is_object_text(std::string_view text) {
  return !text.empty() && text.front() == '{' && text.back() == '}';
}

void settle(Box& b) {
  b.settled = true;
  b.changed.notify_all();
}

void await(Box& b, std::unique_lock<std::mutex>& lock) {
  b.changed.wait_for(lock, std::chrono::milliseconds(kAnswerLimitMs), [&] { return b.settled; });
}

}  // namespace

Question::Question() {
  Box& b = box();
  std::unique_lock lock(b.mutex);
  b.changed.wait(lock, [&] { return !b.open; });
  b.open = true;
  b.settled = false;
  b.dropped = false;
  b.asked_by = current_read_owner();
  b.time = 0;
  b.text_len = 0;
  number_ = ++b.current;
}

Question::~Question() {
  Box& b = box();
  const std::lock_guard lock(b.mutex);
  ++b.current;
  b.open = false;
  b.time = 0;
  b.text_len = 0;
  wipe(b.text.data(), b.text.size());
  b.changed.notify_all();
}

int64_t Question::time_so_far() const {
  Box& b = box();
  const std::lock_guard lock(b.mutex);
  return b.time;
}

int64_t Question::await_time() const {
  Box& b = box();
  std::unique_lock lock(b.mutex);
  await(b, lock);
  return b.time;
}

int32_t Question::await_text(std::span<char> out) const {
  Box& b = box();
  std::unique_lock lock(b.mutex);
  await(b, lock);
  if (b.dropped && current_read_number() != 0) return kNotAsked;  // outside a read it is just no answer
  if (b.text_len > out.size() || b.text_len >= b.text.size()) return -1;
  std::copy_n(b.text.begin(), b.text_len, out.begin());
  return static_cast<int32_t>(b.text_len);
}

void answer_time(QuestionNumber question, int64_t value) {
  Box& b = box();
  const std::lock_guard lock(b.mutex);
  if (b.current != question) return;
  b.time = value;
  if (value != 0) settle(b);
}

void answer_text(QuestionNumber question, std::string_view text) {
  Box& b = box();
  const std::lock_guard lock(b.mutex);
  if (b.current != question) return;
  b.text_len = text.size();
  std::copy_n(text.begin(), std::min(text.size(), b.text.size()), b.text.begin());
  if (is_object_text(text)) settle(b);
}

void drop_question(QuestionNumber question) {
  Box& b = box();
  const std::lock_guard lock(b.mutex);
  if (b.current != question) return;
  b.dropped = true;
  settle(b);
}

void abandon_answers(const SessionConfig* owner) {
  Box& b = box();
  const std::lock_guard lock(b.mutex);
  if (b.open && b.asked_by == owner) settle(b);
}

}  // namespace tq
