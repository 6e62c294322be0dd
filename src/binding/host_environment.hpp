// One JavaScript environment that has loaded the module: its configuration and the ways into its functions.
//
// What the engine keeps of ours are numbers and no addresses: exported functions, the calls it has queued,
// its finalizers and its cleanup hook find an environment by number among the living ones, and do nothing
// when it is gone. A queued call is a mere wake-up; messages wait in lists of our own. So hooks, queued calls
// and finalizers may come in any order, with or without an environment. No lock of ours is held while the
// engine is called, since it may hold one of its own when it calls us.
#pragma once

#include <napi/native_api.h>

#include <cstdint>

#include "binding/message.hpp"
#include "core/config/session_config.h"
#include "core/session/read_session.hpp"

namespace tq {

enum class Channel : uint8_t { kCard, kMonitor, kTimestamp, kResult };

class HostEnvironment {
 public:
  // Makes the state of `env`, which lives until the environment's cleanup. Returns what the engine is to keep
  // of it; null when there is no memory.
  static void* create(napi_env env);

  // On the JavaScript thread: the state that `id`, which the engine has kept, belongs to; null when it is
  // gone.
  static HostEnvironment* of(const void* id);

  // On the JavaScript thread: the first message that waits for the registration `id`; null when there is
  // none.
  static OwnMessage take_message(const void* id);

  // From any thread: has the message delivered through a channel of the environment whose read the thread
  // runs, or else of the newest one that has the channel open.
  static napi_status post(Channel channel, OwnMessage message);

  SessionConfig& config() { return config_; }

  // Makes `function` the JavaScript end of a channel, in place of an earlier one, which still gets what waits
  // for it. False when it is no function.
  bool open_channel(Channel channel, napi_value function, napi_threadsafe_function_call_js call);

  // The JavaScript function of a channel; on failure null.
  napi_status function_of(Channel channel, napi_value& out) const;

  // Start a read and keep the process alive until it has ended.
  int32_t start_id_card_read();
  int32_t start_passport_read(const char* number, const char* birth, const char* expiry);

  // Cancels the read of this kind that this environment has started, and no other.
  void cancel_read(ReadKind kind);

  // Lets the process exit if no read needs it any more.
  void release_process();

 private:
  // A JavaScript function that was registered for a channel, until the engine has let go of it.
  struct Registration {
    Registration* next = nullptr;
    uintptr_t number = 0;
    Channel channel = Channel::kCard;
    napi_ref function = nullptr;
    napi_threadsafe_function queue = nullptr;
    MessageQueue messages;
    uint32_t num_posting = 0;  // threads that are calling the engine with `queue`
    bool closed = false;       // another function has taken its place
  };

  explicit HostEnvironment(napi_env env) : env_(env) {}
  HostEnvironment(const HostEnvironment&) = delete;
  HostEnvironment& operator=(const HostEnvironment&) = delete;

  Registration* open_registration(Channel channel) const;
  Registration* registration(uintptr_t number) const;
  static Registration* receiver(const SessionConfig* owner, Channel channel);
  bool make_queue(Registration& fresh, napi_value function, napi_threadsafe_function_call_js call) const;
  void close_channel(Channel channel);
  void remove(Registration* registration);
  napi_threadsafe_function result_queue(bool& idle) const;
  const uint8_t* fresh_stick_card_id();
  int32_t started(int32_t rc);
  void hold_process();
  static napi_status send(const SessionConfig* owner, Channel channel, OwnMessage message);
  static void on_queue_closed(napi_env env, void* id, void* hint);
  static void on_cleanup(void* id);
  static void on_read_end(const SessionConfig* owner);

  napi_env env_;
  uintptr_t number_ = 0;
  SessionConfig config_{};
  Registration* registrations_ = nullptr;  // the list and its members: guarded by the registry's mutex
  bool holds_process_ = false;
  int64_t stick_card_id_[2] = {-1, -1};
  HostEnvironment* next_ = nullptr;
};

// Calls a JavaScript function; an exception that it throws is cleared.
napi_status call_function(napi_env env, napi_value function, size_t argc, const napi_value* argv,
                          napi_value* result);

}  // namespace tq
