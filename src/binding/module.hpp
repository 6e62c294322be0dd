// The module's init function, for hosts that call it without the registration.
#pragma once

#include <napi/native_api.h>

namespace tq {

// Fills `exports`; the functions find the state of their environment in their data pointer. Returns
// `exports`.
napi_value init_module(napi_env env, napi_value exports);

}  // namespace tq
