// One JavaScript environment that has loaded the module: its configuration and the ways into its functions.
//
// Workers know an environment only by its configuration record, and reach it only through post(), which finds
// it among the living ones under a lock. When the environment goes away it leaves that list first; from then
// on its read finds nobody and gets on with its failure path.
#pragma once

#include <napi/native_api.h>

#include <cstdint>

#include "core/config/session_config.h"
#include "core/session/read_session.hpp"

namespace tq {

enum class Channel : uint8_t { kCard, kMonitor, kTimestamp, kResult };
constexpr size_t kNumChannels = 4;

class HostEnvironment {
 public:
  // Makes the state of `env`, which owns it until its cleanup. Null when there is no memory.
  static HostEnvironment* create(napi_env env);

  SessionConfig& config() { return config_; }

  // Makes `function` the JavaScript end of a channel, in place of an earlier one. False when it is no
  // function.
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

  // From a worker: calls the JavaScript end of a channel of the environment whose read it runs. `data`
  // belongs to the receiver when this returns napi_ok.
  static napi_status post(Channel channel, void* data);

 private:
  struct End {
    napi_ref function = nullptr;
    napi_threadsafe_function queue = nullptr;
  };

  explicit HostEnvironment(napi_env env) : env_(env) {}
  const uint8_t* fresh_stick_card_id();
  int32_t started(int32_t rc);
  void close_channel(End& end);
  void hold_process();
  void renew_cleanup_hook();
  static void on_cleanup(void* self);
  static void on_read_end(const SessionConfig* owner);
  static napi_status post_for(const SessionConfig* owner, Channel channel, void* data);

  napi_env env_;
  SessionConfig config_{};
  End ends_[kNumChannels];
  bool holds_process_ = false;
  int64_t mStickCard_id_[2] = {-1, -1};
  HostEnvironment* next_ = nullptr;
};

// Calls a JavaScript function; an exception that it throws is cleared.
napi_status call_function(napi_env env, napi_value function, size_t argc, const napi_value* argv,
                          napi_value* result);

}  // namespace tq
