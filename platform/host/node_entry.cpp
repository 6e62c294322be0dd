// Node.js looks for this name when a second thread loads the module: the constructor that registers it runs
// only once.

#include "binding/module.hpp"

extern "C" __attribute__((visibility("default"))) napi_value napi_register_module_v1(napi_env env,
                                                                                     napi_value exports) {
  return tq::init_module(env, exports);
}
