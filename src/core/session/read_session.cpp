#include "core/session/read_session.hpp"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <new>

#include "util/memory.h"
#include "util/no_destroy.hpp"
#include "util/secret.hpp"

namespace tq {
namespace {

constexpr size_t kMaxWaitingAnswers = 4;

// Where the application's thread and the workers meet. Reads are numbered by tickets, in the order of their
// starts.
struct Board {
  std::mutex mutex;
  std::condition_variable changed;

  std::atomic<uint64_t> newest{0};     // ticket of the read started last; all older ones are superseded
  std::atomic<bool> cancelled{false};  // cancel flag of the newest read

  // Guarded by the mutex; about the newest read, but for `working`.
  ReadKind kind = ReadKind::kIdentityCard;
  const SessionConfig* owner = nullptr;
  bool unfinished = false;
  bool accepts_answers = false;
  bool command_lost = false;
  bool reporting = false;  // the application has been shown the monitor record: the result follows
  uint64_t working = 0;    // ticket of the read whose worker is at work; 0 = none
  std::array<CardAnswer, kMaxWaitingAnswers> answers{};
  size_t num_answers = 0;

  void clear_answers() {
    wipe(answers.data(), sizeof answers);
    num_answers = 0;
  }
};

Board& board() {
  static NoDestroy<Board> the_board;
  return the_board.get();
}

std::atomic<ReadEndHook> g_end_hook{nullptr};

class Worker final : public ReadSession {
 public:
  Worker(const SessionConfig& cfg, std::span<const uint8_t> input, ReadBody body, uint64_t ticket)
      : cfg_(cfg),
        input_len_(std::min(input.size(), kMaxReadInput)),
        owner_(&cfg),
        body_(body),
        ticket_(ticket) {
    std::copy_n(input.begin(), input_len_, input_.data());
  }
  ~Worker() { wipe(&cfg_, sizeof cfg_); }
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  SessionConfig& config() override { return cfg_; }
  std::span<const uint8_t> input() const override { return input_.bytes().first(input_len_); }
  const SessionConfig* owner() const { return owner_; }
  uint64_t ticket() const { return ticket_; }
  bool superseded() const override { return board().newest.load() != ticket_; }
  bool cancelled() const override { return superseded() || board().cancelled.load(); }
  void accept_answers() override;
  bool wait_for_answer(CardAnswer& out) override;
  bool command_lost() const override;
  void run();

 private:
  bool wait_for_turn();
  void finish();

  SessionConfig cfg_;
  Secret<kMaxReadInput> input_;
  size_t input_len_;
  const SessionConfig* owner_;
  ReadBody body_;
  uint64_t ticket_;
};

thread_local Worker* t_worker = nullptr;

void Worker::accept_answers() {
  Board& b = board();
  const std::lock_guard lock(b.mutex);
  if (!superseded()) b.accepts_answers = true;
}

bool Worker::wait_for_answer(CardAnswer& out) {
  Board& b = board();
  std::unique_lock lock(b.mutex);
  b.changed.wait(lock, [&] { return superseded() || b.command_lost || b.num_answers > 0; });
  if (superseded() || b.command_lost) return false;
  out = b.answers.front();
  std::move(b.answers.begin() + 1, b.answers.begin() + b.num_answers, b.answers.begin());
  --b.num_answers;
  wipe(&b.answers[b.num_answers], sizeof(CardAnswer));
  return true;
}

bool Worker::command_lost() const {
  Board& b = board();
  const std::lock_guard lock(b.mutex);
  return !superseded() && b.command_lost;
}

// Waits until the reads before this one have ended.
bool Worker::wait_for_turn() {
  Board& b = board();
  std::unique_lock lock(b.mutex);
  b.changed.wait(lock, [&] { return superseded() || b.working == 0; });
  if (superseded()) return false;
  b.working = ticket_;
  return true;
}

void Worker::finish() {
  Board& b = board();
  const std::lock_guard lock(b.mutex);
  if (b.working == ticket_) b.working = 0;
  if (!superseded()) {
    b.unfinished = false;
    b.accepts_answers = false;
    b.clear_answers();
  }
  b.changed.notify_all();
}

void Worker::run() {
  t_worker = this;
  if (wait_for_turn()) body_(*this);
  finish();
  t_worker = nullptr;
}

void* worker_main(void* argument) {
  auto* worker = static_cast<Worker*>(argument);
  worker->run();
  const SessionConfig* owner = worker->owner();
  worker->~Worker();
  tq_mem_free(worker);
  if (ReadEndHook hook = g_end_hook.load(); hook != nullptr) hook(owner);
  return nullptr;
}

bool start_detached(Worker* worker) {
  pthread_t thread{};
  if (pthread_create(&thread, nullptr, worker_main, worker) != 0) return false;
  pthread_detach(thread);
  return true;
}

}  // namespace

int32_t start_read(ReadKind kind, const SessionConfig& cfg, ReadBody body, Interrupt interrupt,
                   std::span<const uint8_t> input) {
  Board& b = board();
  const std::lock_guard lock(b.mutex);  // holds the new worker back until everything is in place
  const uint64_t ticket = b.newest.load() + 1;
  void* room = tq_mem_malloc(sizeof(Worker));
  if (room == nullptr) return TQ_NO_THREAD;
  auto* worker = new (room) Worker(cfg, input, body, ticket);
  if (!start_detached(worker)) {
    worker->~Worker();
    tq_mem_free(worker);
    return TQ_NO_THREAD;
  }
  b.newest.store(ticket);
  b.cancelled.store(false);
  b.kind = kind;
  b.owner = &cfg;
  b.unfinished = true;
  b.accepts_answers = false;
  b.command_lost = false;
  b.reporting = false;
  b.clear_answers();
  if (b.working != 0) interrupt();
  b.changed.notify_all();
  return TQ_OK;
}

void abandon_read(const SessionConfig* owner, Interrupt interrupt) {
  Board& b = board();
  const std::lock_guard lock(b.mutex);
  if (!b.unfinished || b.owner != owner) return;
  b.newest.fetch_add(1);
  b.unfinished = false;
  b.accepts_answers = false;
  b.clear_answers();
  if (b.working != 0) interrupt();
  b.changed.notify_all();
}

void deliver_answer(ReadKind kind, const SessionConfig* owner, std::span<const uint8_t> data, uint8_t serial,
                    int32_t status) {
  Board& b = board();
  const std::lock_guard lock(b.mutex);
  const bool belongs = b.accepts_answers && b.kind == kind && (owner == nullptr || owner == b.owner);
  if (!belongs || b.num_answers == kMaxWaitingAnswers) return;
  CardAnswer& answer = b.answers[b.num_answers++];
  answer.serial = serial;
  answer.status = status;
  answer.length = 0;
  if (status != -1 && data.size() <= kMaxCardAnswer) {
    std::copy(data.begin(), data.end(), answer.data.begin());
    answer.length = static_cast<uint16_t>(data.size());
  }
  b.changed.notify_all();
}

void cancel_read(ReadKind kind, const SessionConfig* owner, Interrupt interrupt) {
  Board& b = board();
  const std::lock_guard lock(b.mutex);  // no other read may start before the interrupt
  if (b.unfinished) {
    if (b.kind != kind || (owner != nullptr && b.owner != owner)) return;
    b.cancelled.store(true);  // first: the worker that the interrupt wakes has to find it
  }
  interrupt();
}

void lose_command(uint64_t read) {
  Board& b = board();
  const std::lock_guard lock(b.mutex);
  if (!b.unfinished || !is_newest_read(read)) return;
  b.command_lost = true;
  b.changed.notify_all();
}

bool read_in_progress(const SessionConfig* owner) {
  Board& b = board();
  const std::lock_guard lock(b.mutex);
  return b.unfinished && b.owner == owner && (!b.cancelled.load() || !b.accepts_answers || b.reporting);
}

const SessionConfig* current_read_owner() {
  return t_worker == nullptr ? nullptr : t_worker->owner();
}

uint64_t current_read_number() {
  return t_worker == nullptr ? 0 : t_worker->ticket();
}

bool is_newest_read(uint64_t number) {
  return board().newest.load() == number;
}

bool begin_report(uint64_t number) {
  Board& b = board();
  const std::lock_guard lock(b.mutex);
  if (!is_newest_read(number) || b.cancelled.load()) return false;
  b.reporting = true;
  return true;
}

bool current_read_superseded() {
  return t_worker != nullptr && t_worker->superseded();
}

bool current_read_stopped() {
  return t_worker != nullptr && t_worker->cancelled();
}

void set_read_end_hook(ReadEndHook hook) {
  g_end_hook.store(hook);
}

}  // namespace tq
