#include "binding/host_environment.hpp"

#include <algorithm>
#include <iterator>
#include <mutex>
#include <new>
#include <utility>

#include "binding/answer_box.hpp"
#include "core/session/read_session.hpp"
#include "idcard/id_card_session.h"
#include "passport/passport_session.h"
#include "protocol/tcp_transport.h"
#include "util/memory.h"
#include "util/no_destroy.hpp"

namespace tq {
namespace {

// The living environments. The mutex also guards their queues against the workers.
struct Registry {
  std::mutex mutex;
  HostEnvironment* first = nullptr;
};

Registry& registry() {
  static NoDestroy<Registry> the_registry;
  return the_registry.get();
}

}  // namespace

HostEnvironment* HostEnvironment::create(napi_env env) {
  void* room = tq_mem_malloc(sizeof(HostEnvironment));
  if (room == nullptr) return nullptr;
  auto* host = new (room) HostEnvironment(env);
  set_read_end_hook(&HostEnvironment::on_read_end);
  Registry& r = registry();
  const std::lock_guard lock(r.mutex);
  host->next_ = r.first;
  r.first = host;
  napi_add_env_cleanup_hook(env, on_cleanup, host);
  return host;
}

bool HostEnvironment::open_channel(Channel channel, napi_value function,
                                   napi_threadsafe_function_call_js call) {
  End& end = ends_[static_cast<size_t>(channel)];
  close_channel(end);
  napi_valuetype type = napi_undefined;
  if (napi_typeof(env_, function, &type) != napi_ok || type != napi_function) return false;
  napi_value name = nullptr;
  End fresh;
  if (napi_create_reference(env_, function, 1, &fresh.function) != napi_ok) return false;
  const bool created = napi_create_string_utf8(env_, "Work Item", NAPI_AUTO_LENGTH, &name) == napi_ok &&
                       napi_create_threadsafe_function(env_, function, nullptr, name, 0, 1, nullptr, nullptr,
                                                       this, call, &fresh.queue) == napi_ok;
  if (!created) {
    napi_delete_reference(env_, fresh.function);
    return false;
  }
  napi_unref_threadsafe_function(env_, fresh.queue);
  if (channel == Channel::kResult) {
    holds_process_ = read_in_progress(&config_);
    if (holds_process_) napi_ref_threadsafe_function(env_, fresh.queue);
  }
  {
    const std::lock_guard lock(registry().mutex);
    end = fresh;
  }
  renew_cleanup_hook();
  return true;
}

void HostEnvironment::close_channel(End& end) {
  End closed;
  {
    const std::lock_guard lock(registry().mutex);
    closed = std::exchange(end, End{});
  }
  if (closed.queue != nullptr) napi_release_threadsafe_function(closed.queue, napi_tsfn_release);
  if (closed.function != nullptr) napi_delete_reference(env_, closed.function);
}

napi_status HostEnvironment::function_of(Channel channel, napi_value& out) const {
  out = nullptr;
  const End& end = ends_[static_cast<size_t>(channel)];
  if (end.function == nullptr) return napi_invalid_arg;
  return napi_get_reference_value(env_, end.function, &out);
}

const uint8_t* HostEnvironment::fresh_stick_card_id() {
  std::fill(std::begin(mStickCard_id_), std::end(mStickCard_id_), int64_t{-1});
  return reinterpret_cast<const uint8_t*>(mStickCard_id_);
}

int32_t HostEnvironment::started(int32_t rc) {
  if (rc == TQ_OK) hold_process();
  return rc;
}

int32_t HostEnvironment::start_id_card_read() {
  return started(id_card_decode(&config_, fresh_stick_card_id()));
}

int32_t HostEnvironment::start_passport_read(const char* number, const char* birth, const char* expiry) {
  return started(passport_decode(&config_, number, birth, expiry, fresh_stick_card_id()));
}

void HostEnvironment::cancel_read(ReadKind kind) {
  tq::cancel_read(kind, &config_, tq_socket_close);
  release_process();
}

void HostEnvironment::hold_process() {
  if (std::exchange(holds_process_, true)) return;
  napi_ref_threadsafe_function(env_, ends_[static_cast<size_t>(Channel::kResult)].queue);
}

void HostEnvironment::release_process() {
  if (read_in_progress(&config_) || !std::exchange(holds_process_, false)) return;
  const End& end = ends_[static_cast<size_t>(Channel::kResult)];
  if (end.queue != nullptr) napi_unref_threadsafe_function(env_, end.queue);
}

// Cleanup hooks run last in, first out: this one has to run before those of the queues.
void HostEnvironment::renew_cleanup_hook() {
  napi_remove_env_cleanup_hook(env_, on_cleanup, this);
  napi_add_env_cleanup_hook(env_, on_cleanup, this);
}

void HostEnvironment::on_cleanup(void* self) {
  auto* host = static_cast<HostEnvironment*>(self);
  {
    Registry& r = registry();
    const std::lock_guard lock(r.mutex);
    for (HostEnvironment** link = &r.first; *link != nullptr; link = &(*link)->next_) {
      if (*link != host) continue;
      *link = host->next_;
      break;
    }
  }
  abandon_read(&host->config_, tq_socket_close);
  abandon_answers(&host->config_);
  for (const End& end : host->ends_) {
    if (end.function != nullptr) napi_delete_reference(host->env_, end.function);
  }
  host->~HostEnvironment();
  tq_mem_free(host);
}

void HostEnvironment::on_read_end(const SessionConfig* owner) {
  post_for(owner, Channel::kResult, nullptr);
}

napi_status HostEnvironment::post(Channel channel, void* data) {
  return post_for(current_read_owner(), channel, data);
}

napi_status HostEnvironment::post_for(const SessionConfig* owner, Channel channel, void* data) {
  Registry& r = registry();
  const std::lock_guard lock(r.mutex);
  // A superseded read has nothing to say any more, and its environment may be gone.
  if (data != nullptr && current_read_superseded()) return napi_closing;
  for (HostEnvironment* host = r.first; host != nullptr; host = host->next_) {
    if (&host->config_ != owner) continue;
    napi_threadsafe_function queue = host->ends_[static_cast<size_t>(channel)].queue;
    if (queue == nullptr) return napi_closing;
    if (napi_status status = napi_acquire_threadsafe_function(queue); status != napi_ok) return status;
    const napi_status status = napi_call_threadsafe_function(queue, data, napi_tsfn_blocking);
    if (status != napi_closing) napi_release_threadsafe_function(queue, napi_tsfn_release);
    return status;
  }
  return napi_closing;
}

napi_status call_function(napi_env env, napi_value function, size_t argc, const napi_value* argv,
                          napi_value* result) {
  napi_value receiver = nullptr;
  napi_get_undefined(env, &receiver);
  const napi_status status = napi_call_function(env, receiver, function, argc, argv, result);
  bool pending = false;
  if (napi_is_exception_pending(env, &pending) == napi_ok && pending) {
    napi_value exception = nullptr;
    napi_get_and_clear_last_exception(env, &exception);
  }
  return status;
}

}  // namespace tq
