// What both readers share: one read at a time on its own worker thread, the answers that the application
// hands over, and the two ways a read is stopped from outside.
//
// Cancelling sets a flag that the worker looks at after each step; it does not wake a worker that waits for a
// card. Superseding (a new read, or the end of the environment that started this one) wakes it at once. A
// superseded read ends without any report and releases what it holds; only then does the new worker begin.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "core/config/session_config.h"

namespace tq {

enum class ReadKind : uint8_t { kIdentityCard, kPassport };

// The most bytes of one card answer; longer ones count as missing.
constexpr size_t kMaxCardAnswer = 300;

// One answer as the application handed it back.
struct CardAnswer {
  std::array<uint8_t, kMaxCardAnswer> data{};
  uint16_t length = 0;  // 0 when the answer was missing or refused
  uint8_t serial = 0;   // number of the command that it answers
  int32_t status = 0;   // -1: the card exchange failed

  std::span<const uint8_t> bytes() const { return std::span(data).first(length); }
};

// The most bytes that a read can be given beside its configuration.
constexpr size_t kMaxReadInput = 40;

// One running read, seen from its worker.
class ReadSession {
 public:
  virtual SessionConfig& config() = 0;

  // What the read was given when it was started. Wiped at its end.
  virtual std::span<const uint8_t> input() const = 0;

  // From now on answers belong to this read. Called before its first card command: an answer that comes
  // earlier is one to a command of an older read.
  virtual void accept_answers() = 0;

  // Sleeps until the next answer has been handed over. Returns false when the read has been superseded, and
  // when its command has been lost.
  virtual bool wait_for_answer(CardAnswer& out) = 0;

  // True once a command of this read could not be handed to the application: nobody will answer it.
  virtual bool command_lost() const = 0;

  virtual bool superseded() const = 0;

  // True after a cancel, and when superseded.
  virtual bool cancelled() const = 0;

 protected:
  ~ReadSession() = default;
};

using ReadBody = void (*)(ReadSession& session);
using Interrupt = void (*)();

// Starts a worker that runs `body` with copies of `cfg` and `input`. An unfinished read is superseded:
// `interrupt` is called to end what it waits for on the network. Returns at once: TQ_OK, or TQ_NO_THREAD
// (then a running read goes on).
int32_t start_read(ReadKind kind, const SessionConfig& cfg, ReadBody body, Interrupt interrupt,
                   std::span<const uint8_t> input = {});

// Supersedes the unfinished read that was started with `owner`, without starting another.
void abandon_read(const SessionConfig* owner, Interrupt interrupt);

// Hands an answer to the running read of this kind and owner (null: any), without ever blocking. Up to four
// wait while a step is being worked on; more are dropped, and so are answers that belong to no running read.
void deliver_answer(ReadKind kind, const SessionConfig* owner, std::span<const uint8_t> data, uint8_t serial,
                    int32_t status);

// Sets the cancel flag of the unfinished read, if there is one, and calls `interrupt` to end what it waits
// for on the network. Nothing happens while a read of another kind, or of another owner (null: any), is under
// way.
void cancel_read(ReadKind kind, const SessionConfig* owner, Interrupt interrupt);

// Tells the read of this number that its command could not be handed to the application. From any thread.
void lose_command(uint64_t read);

// True while the read started with `owner` may still have something to report: it is neither finished nor
// superseded, nor cancelled between its authentication and its report.
bool read_in_progress(const SessionConfig* owner);

// On a worker thread: the record that its read was started with, as an identity only. Null elsewhere.
const SessionConfig* current_read_owner();

// On a worker thread: the number of its read. 0 elsewhere.
uint64_t current_read_number();

// False once the read of this number has been superseded.
bool is_newest_read(uint64_t number);

// Right before the application is shown the monitor record: from then on a cancel no longer keeps the result
// back. False when the read of this number has been superseded or cancelled.
bool begin_report(uint64_t number);

// Returned for a question that a stopped read no longer puts to the application.
constexpr int32_t kNotAsked = -2;

// On a worker thread: true once its read has been superseded. False elsewhere.
bool current_read_superseded();

// On a worker thread: true once its read has been superseded or cancelled. False elsewhere.
bool current_read_stopped();

// `hook` is called on the worker thread after a read has ended and released everything, with its owner.
using ReadEndHook = void (*)(const SessionConfig* owner);
void set_read_end_hook(ReadEndHook hook);

}  // namespace tq
