// The JavaScript ends of the bridge: each runs on the application's thread and calls its function. And the
// time function of a location request, which needs no bridge: the request runs on that thread, too.
#pragma once

#include <napi/native_api.h>

namespace tq {

void call_card_function(napi_env env, napi_value function, void* context, void* data);
void call_monitor_function(napi_env env, napi_value function, void* context, void* data);
void call_timestamp_function(napi_env env, napi_value function, void* context, void* data);
void call_result_function(napi_env env, napi_value function, void* context, void* data);

// Keeps a JavaScript function as the clock of this thread's location request. A request that is begun from
// inside the function has its own; afterwards the former one is back.
class LocationTime {
 public:
  LocationTime(napi_env env, napi_value function);
  ~LocationTime();
  LocationTime(const LocationTime&) = delete;
  LocationTime& operator=(const LocationTime&) = delete;

  // napi_ok, or why the function could not be kept.
  napi_status status() const { return status_; }
  int64_t ask() const;

 private:
  napi_env env_;
  napi_ref function_ = nullptr;
  napi_status status_;
  LocationTime* former_;
};

}  // namespace tq
