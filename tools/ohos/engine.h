/* A JavaScript engine as far as the module needs one, and the end of an environment in the orders that
   engines have. It is strict: what is used after its end, given back twice or not at all fails. */
#pragma GCC diagnostic ignored "-Wunused-parameter"

#include <napi/native_api.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { kMost = 64 };
typedef enum { kHooksThenCalls, kHooksThenNulls, kHooksThenNothing, kQueuesThenHooks, kNumEndings } ending;
typedef double (*function)(const char* text);

struct napi_value__ {
  napi_valuetype type;
  double number;
  char text[1024];
  function called;
  napi_value next;
};
struct napi_threadsafe_function__ {
  napi_value callee;
  napi_threadsafe_function_call_js js;
  napi_finalize finalize;
  void *context, *finalize_data, *data[kMost];
  int num_data, num_holders;
  pthread_mutex_t mutex; /* held while the module is called, as an engine may */
  napi_threadsafe_function next;
};
struct napi_env__ {
  napi_value values;
  napi_threadsafe_function queues;
  napi_property_descriptor exports[16];
  void (*hooks[kMost])(void*);
  void* hook_arguments[kMost];
  int num_exports, num_hooks, num_references, num_scopes;
};
struct napi_callback_info__ {
  size_t count;
  napi_value arguments[16];
  void* data;
};

static napi_module* g_module;

static void expect(int holds, const char* what) {
  if (holds) return;
  fprintf(stderr, "module_host: failed: %s\n", what);
  _Exit(1);
}

static napi_value make(napi_env env, napi_valuetype type, double number, const char* text, function called) {
  napi_value value = calloc(1, sizeof *value);
  *value = (struct napi_value__){.type = type, .number = number, .called = called, .next = env->values};
  strncpy(value->text, text, sizeof value->text - 1);
  return env->values = value;
}

#define API(name, parameters, ...)     \
  napi_status napi_##name parameters { \
    __VA_ARGS__;                       \
    return napi_ok;                    \
  }
#define IS(value, wanted) \
  if (value == NULL || value->type != wanted) return napi_invalid_arg

void napi_module_register(napi_module* module) {
  expect(g_module == NULL, "one module registers, once");
  g_module = module;
}
API(create_int32, (napi_env env, int32_t n, napi_value* out), *out = make(env, napi_number, n, "", NULL))
API(create_string_utf8, (napi_env env, const char* text, size_t length, napi_value* out),
    *out = make(env, napi_string, 0, text, NULL))
API(get_undefined, (napi_env env, napi_value* out), *out = make(env, napi_undefined, 0, "", NULL))
API(typeof, (napi_env env, napi_value v, napi_valuetype* out), *out = v == NULL ? napi_undefined : v->type)
API(get_value_int32, (napi_env env, napi_value v, int32_t* out), IS(v, napi_number);
    *out = (int32_t)v->number)
API(get_value_int64, (napi_env env, napi_value v, int64_t* out), IS(v, napi_number);
    *out = (int64_t)v->number)
API(get_value_string_utf8, (napi_env env, napi_value v, char* out, size_t size, size_t* length),
    IS(v, napi_string);
    *length = strlen(v->text); if (out != NULL) snprintf(out, size, "%s", v->text))
API(strict_equals, (napi_env env, napi_value a, napi_value b, bool* out), *out = a == b)
API(open_handle_scope, (napi_env env, napi_handle_scope* out), ++env->num_scopes;
    *out = (napi_handle_scope)env)
API(close_handle_scope, (napi_env env, napi_handle_scope scope), --env->num_scopes)
API(create_reference, (napi_env env, napi_value value, uint32_t count, napi_ref* out), ++env->num_references;
    *out = (napi_ref)value)
API(delete_reference, (napi_env env, napi_ref reference), --env->num_references)
API(get_reference_value, (napi_env env, napi_ref reference, napi_value* out), *out = (napi_value)reference)
API(call_function,
    (napi_env env, napi_value receiver, napi_value callee, size_t count, const napi_value* values,
     napi_value* out),
    expect(env->num_scopes > 0, "a call into JavaScript has a scope");
    *out = make(env, napi_number, callee->called(count == 0 ? "" : values[0]->text), "", NULL))
API(is_exception_pending, (napi_env env, bool* out), *out = false)
API(get_and_clear_last_exception, (napi_env env, napi_value* out), *out = NULL)
API(define_properties, (napi_env env, napi_value object, size_t count, const napi_property_descriptor* rows),
    env->num_exports = (int)count;
    memcpy(env->exports, rows, count * sizeof *rows))
API(get_cb_info,
    (napi_env env, napi_callback_info info, size_t* count, napi_value* out, napi_value* self, void** data),
    if (count != NULL) memcpy(out, info->arguments, *count * sizeof *out);
    *data = info->data)
API(add_env_cleanup_hook, (napi_env env, void (*hook)(void*), void* argument),
    env->hooks[env->num_hooks] = hook;
    env->hook_arguments[env->num_hooks++] = argument)
API(create_threadsafe_function,
    (napi_env env, napi_value callee, napi_value resource, napi_value name, size_t most, size_t num_holders,
     void* finalize_data, napi_finalize finalize, void* context, napi_threadsafe_function_call_js js,
     napi_threadsafe_function* out),
    napi_threadsafe_function queue = *out = calloc(1, sizeof **out);
    *queue = (struct napi_threadsafe_function__){callee, js, finalize, context, finalize_data,
                                                 .num_holders = (int)num_holders, .next = env->queues};
    pthread_mutex_init(&queue->mutex, NULL); env->queues = queue)
API(ref_threadsafe_function, (napi_env env, napi_threadsafe_function queue), )
API(unref_threadsafe_function, (napi_env env, napi_threadsafe_function queue), )
API(call_threadsafe_function,
    (napi_threadsafe_function queue, void* data, napi_threadsafe_function_call_mode mode),
    pthread_mutex_lock(&queue->mutex);
    expect(queue->num_holders > 0, "only a queue that is held is called");
    queue->data[queue->num_data++] = data; pthread_mutex_unlock(&queue->mutex))
API(release_threadsafe_function, (napi_threadsafe_function queue, napi_threadsafe_function_release_mode mode),
    expect(queue->num_holders-- > 0, "a queue is released once"))

/* Dispatches what is queued, with or without an environment; returns how many calls. */
static int drain(napi_threadsafe_function queue, napi_env env) {
  pthread_mutex_lock(&queue->mutex);
  const int count = queue->num_data;
  for (int i = 0; i < count; ++i) queue->js(env, env ? queue->callee : NULL, queue->context, queue->data[i]);
  queue->num_data = 0;
  pthread_mutex_unlock(&queue->mutex);
  return count;
}
static int run_loop(napi_env env) {
  int count = 0;
  for (napi_threadsafe_function queue = env->queues; queue; queue = queue->next) count += drain(queue, env);
  return count;
}
static int num_queued(napi_env env) {
  int sum = 0;
  for (napi_threadsafe_function queue = env->queues; queue; queue = queue->next) {
    pthread_mutex_lock(&queue->mutex);
    sum += queue->num_data;
    pthread_mutex_unlock(&queue->mutex);
  }
  return sum;
}
static void destroy_queues(napi_env env, napi_env told, int hand_back) {
  for (napi_threadsafe_function queue; (queue = env->queues) != NULL; free(queue)) {
    queue->finalize(told, queue->finalize_data, NULL);
    if (hand_back) drain(queue, told);
    env->queues = queue->next;
  }
}

/* Calls one of the module's functions; each argument is an int, a text or a function of ours: 'i', 's', 'f'.
 */
static int call(napi_env env, const char* name, const char* types, ...) {
  struct napi_callback_info__ info = {.count = strlen(types)};
  va_list rest;
  va_start(rest, types);
  for (size_t i = 0; i < info.count; ++i) {
    napi_value* out = &info.arguments[i];
    if (types[i] == 'i') napi_create_int32(env, va_arg(rest, int), out);
    if (types[i] == 's') napi_create_string_utf8(env, va_arg(rest, const char*), NAPI_AUTO_LENGTH, out);
    if (types[i] == 'f') *out = make(env, napi_function, 0, "", va_arg(rest, function));
  }
  va_end(rest);
  int row = 0;
  while (strcmp(env->exports[row].utf8name, name) != 0) ++row;
  info.data = env->exports[row].data;
  const napi_value result = env->exports[row].method(env, &info);
  return result == NULL ? 0 : (int)result->number;
}

static napi_env begin_environment(void) {
  napi_env env = calloc(1, sizeof *env);
  g_module->nm_register_func(env, NULL);
  return env;
}
static void end_environment(napi_env env, ending how) {
  if (how == kQueuesThenHooks) destroy_queues(env, env, 1);
  while (env->num_hooks > 0)
    --env->num_hooks, env->hooks[env->num_hooks](env->hook_arguments[env->num_hooks]);
  expect(call(env, "cancelCard", "i", 0) < 0, "a function that is called after the hooks finds no state");
  for (napi_threadsafe_function queue = env->queues; queue != NULL; queue = queue->next) {
    expect(queue->num_holders == 0, "the hook releases every queue");
  }
  if (how == kHooksThenCalls) run_loop(env);
  destroy_queues(env, how == kHooksThenNulls ? NULL : env, how == kHooksThenNulls);
  expect(env->num_references == 0 && env->num_scopes == 0, "references and scopes are given back");
  for (napi_value value; (value = env->values) != NULL; free(value)) env->values = value->next;
  free(env);
}
