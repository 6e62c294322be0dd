// The JavaScript ends of the bridge: each runs on the application's thread and calls its function.
#pragma once

#include <napi/native_api.h>

namespace tq {

void call_card_function(napi_env env, napi_value function, void* context, void* data);
void call_monitor_function(napi_env env, napi_value function, void* context, void* data);
void call_timestamp_function(napi_env env, napi_value function, void* context, void* data);
void call_result_function(napi_env env, napi_value function, void* context, void* data);

}  // namespace tq
