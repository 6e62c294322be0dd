#include "binding/host_environment.hpp"

#include <algorithm>
#include <condition_variable>
#include <iterator>
#include <mutex>
#include <new>
#include <utility>

#include "binding/answer_box.hpp"
#include "idcard/id_card_session.h"
#include "passport/passport_session.h"
#include "protocol/tcp_transport.h"
#include "util/memory.h"
#include "util/no_destroy.hpp"

namespace tq {
namespace {

// The living environments, the newest first.
struct Registry {
  std::mutex mutex;
  std::condition_variable posted;
  HostEnvironment* first = nullptr;
  uintptr_t last_number = 0;
};

Registry& registry() {
  static NoDestroy<Registry> the_registry;
  return the_registry.get();
}

uintptr_t number_of(const void* id) {
  return reinterpret_cast<uintptr_t>(id);
}

void* id_of(uintptr_t number) {
  return reinterpret_cast<void*>(number);
}

template <typename T>
void unmake(T* object) {
  object->~T();
  tq_mem_free(object);
}

}  // namespace

void* HostEnvironment::create(napi_env env) {
  void* room = tq_mem_malloc(sizeof(HostEnvironment));
  if (room == nullptr) return nullptr;
  auto* host = new (room) HostEnvironment(env);
  set_read_end_hook(&HostEnvironment::on_read_end);
  Registry& r = registry();
  {
    const std::lock_guard lock(r.mutex);
    host->number_ = ++r.last_number;
    host->next_ = r.first;
    r.first = host;
  }
  napi_add_env_cleanup_hook(env, on_cleanup, id_of(host->number_));
  return id_of(host->number_);
}

HostEnvironment* HostEnvironment::of(const void* id) {
  const uintptr_t number = number_of(id);
  Registry& r = registry();
  const std::lock_guard lock(r.mutex);
  for (HostEnvironment* host = r.first; host != nullptr; host = host->next_) {
    if (host->number_ == number || host->registration(number) != nullptr) return host;
  }
  return nullptr;
}

OwnMessage HostEnvironment::take_message(const void* id) {
  HostEnvironment* host = of(id);
  if (host == nullptr) return nullptr;
  const std::lock_guard lock(registry().mutex);
  Registration* from = host->registration(number_of(id));
  return from == nullptr ? nullptr : from->messages.pop();
}

// The following three: with the registry's lock held.
HostEnvironment::Registration* HostEnvironment::registration(uintptr_t number) const {
  Registration* r = registrations_;
  while (r != nullptr && r->number != number) r = r->next;
  return r;
}

HostEnvironment::Registration* HostEnvironment::open_registration(Channel channel) const {
  Registration* r = registrations_;
  while (r != nullptr && (r->closed || r->channel != channel)) r = r->next;
  return r;
}

// Without an owner: that of the newest environment that has one.
HostEnvironment::Registration* HostEnvironment::receiver(const SessionConfig* owner, Channel channel) {
  for (HostEnvironment* host = registry().first; host != nullptr; host = host->next_) {
    if (owner != nullptr && owner != &host->config_) continue;
    Registration* found = host->open_registration(channel);
    if (owner != nullptr || found != nullptr) return found;
  }
  return nullptr;
}

bool HostEnvironment::make_queue(Registration& fresh, napi_value function,
                                 napi_threadsafe_function_call_js call) const {
  if (napi_create_reference(env_, function, 1, &fresh.function) != napi_ok) return false;
  napi_value name = nullptr;
  void* id = id_of(fresh.number);
  if (napi_create_string_utf8(env_, "Work Item", NAPI_AUTO_LENGTH, &name) == napi_ok &&
      napi_create_threadsafe_function(env_, function, nullptr, name, 0, 1, id, on_queue_closed, id, call,
                                      &fresh.queue) == napi_ok) {
    return true;
  }
  napi_delete_reference(env_, fresh.function);
  return false;
}

bool HostEnvironment::open_channel(Channel channel, napi_value function,
                                   napi_threadsafe_function_call_js call) {
  close_channel(channel);
  napi_valuetype type = napi_undefined;
  if (napi_typeof(env_, function, &type) != napi_ok || type != napi_function) return false;
  void* room = tq_mem_malloc(sizeof(Registration));
  if (room == nullptr) return false;
  auto* fresh = new (room) Registration();
  Registry& r = registry();
  fresh->channel = channel;
  {
    const std::lock_guard lock(r.mutex);
    fresh->number = ++r.last_number;
  }
  if (!make_queue(*fresh, function, call)) {
    unmake(fresh);
    return false;
  }
  napi_unref_threadsafe_function(env_, fresh->queue);
  {
    const std::lock_guard lock(r.mutex);
    fresh->next = std::exchange(registrations_, fresh);
  }
  if (channel == Channel::kResult) {
    holds_process_ = false;
    if (read_in_progress(&config_)) hold_process();
  }
  return true;
}

void HostEnvironment::close_channel(Channel channel) {
  napi_ref function = nullptr;
  napi_threadsafe_function queue = nullptr;
  {
    const std::lock_guard lock(registry().mutex);
    Registration* open = open_registration(channel);
    if (open == nullptr) return;
    open->closed = true;
    function = std::exchange(open->function, nullptr);
    if (open->num_posting == 0)
      queue = std::exchange(open->queue, nullptr);  // or else the last to post does it
  }
  if (queue != nullptr) napi_release_threadsafe_function(queue, napi_tsfn_release);
  napi_delete_reference(env_, function);
}

napi_status HostEnvironment::function_of(Channel channel, napi_value& out) const {
  out = nullptr;
  napi_ref function = nullptr;
  {
    const std::lock_guard lock(registry().mutex);
    const Registration* open = open_registration(channel);
    if (open == nullptr) return napi_invalid_arg;
    function = open->function;
  }
  return napi_get_reference_value(env_, function, &out);
}

const uint8_t* HostEnvironment::fresh_stick_card_id() {
  std::fill(std::begin(stick_card_id_), std::end(stick_card_id_), int64_t{-1});
  return reinterpret_cast<const uint8_t*>(stick_card_id_);
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

// The queue of the results, and whether one waits there. It is given back on this thread alone.
napi_threadsafe_function HostEnvironment::result_queue(bool& idle) const {
  const std::lock_guard lock(registry().mutex);
  const Registration* open = open_registration(Channel::kResult);
  idle = open != nullptr && open->messages.empty();
  return open == nullptr ? nullptr : open->queue;
}

void HostEnvironment::hold_process() {
  bool idle = false;
  napi_threadsafe_function queue = result_queue(idle);
  if (queue != nullptr && !std::exchange(holds_process_, true)) napi_ref_threadsafe_function(env_, queue);
}

void HostEnvironment::release_process() {
  bool idle = false;
  napi_threadsafe_function queue = result_queue(idle);
  if (queue == nullptr || !idle || read_in_progress(&config_)) return;
  if (std::exchange(holds_process_, false)) napi_unref_threadsafe_function(env_, queue);
}

napi_status HostEnvironment::post(Channel channel, OwnMessage message) {
  return send(current_read_owner(), channel, std::move(message));
}

// Nothing but a wake-up: the result channel looks whether the process is needed any longer.
void HostEnvironment::on_read_end(const SessionConfig* owner) {
  send(owner, Channel::kResult, nullptr);
}

napi_status HostEnvironment::send(const SessionConfig* owner, Channel channel, OwnMessage message) {
  const Message* sent = message.get();
  Registry& r = registry();
  std::unique_lock lock(r.mutex);
  // A superseded read has nothing to say any more, and its environment may be gone.
  if (sent != nullptr && current_read_superseded()) return napi_closing;
  Registration* to = receiver(owner, channel);
  if (to == nullptr || to->queue == nullptr) return napi_closing;
  if (message) to->messages.push(std::move(message));
  ++to->num_posting;  // keeps the registration and its queue
  napi_threadsafe_function queue = to->queue;
  lock.unlock();

  napi_status status = napi_call_threadsafe_function(queue, nullptr, napi_tsfn_blocking);

  lock.lock();
  if (status == napi_closing) to->queue = nullptr;  // the engine has taken it away
  if (status != napi_ok && sent != nullptr) {
    message = to->messages.withdraw(sent);
    if (!message) status = napi_ok;  // an earlier wake-up has delivered it
  }
  if (to->closed && to->num_posting == 1 && to->queue != nullptr) {
    queue = std::exchange(to->queue, nullptr);
    lock.unlock();
    napi_release_threadsafe_function(queue, napi_tsfn_release);
    lock.lock();
  }
  --to->num_posting;
  lock.unlock();
  r.posted.notify_all();
  return status;
}

// The engine destroys a queue: because it was released, or because the environment ends.
void HostEnvironment::on_queue_closed(napi_env env, void* id, void* hint) {
  static_cast<void>(env);
  static_cast<void>(hint);
  HostEnvironment* host = of(id);
  if (host == nullptr) return;
  Registry& r = registry();
  std::unique_lock lock(r.mutex);
  Registration* gone = host->registration(number_of(id));
  gone->queue = nullptr;  // nobody else begins to post
  r.posted.wait(lock, [&] { return gone->num_posting == 0; });
  gone->messages.clear();
  if (gone->closed) host->remove(gone);
}

// With the registry's lock held, or when nobody finds this environment any more.
void HostEnvironment::remove(Registration* registration) {
  Registration** link = &registrations_;
  while (*link != registration) link = &(*link)->next;
  *link = registration->next;
  unmake(registration);
}

// First nobody finds this environment any more, then everything goes. The engine is given all queues back:
// the phone's does not take them, and may refuse to end while one lives.
void HostEnvironment::on_cleanup(void* id) {
  HostEnvironment* host = of(id);
  if (host == nullptr) return;
  {
    Registry& r = registry();
    std::unique_lock lock(r.mutex);
    HostEnvironment** link = &r.first;
    while (*link != host) link = &(*link)->next_;
    *link = host->next_;
    for (const Registration* each = host->registrations_; each != nullptr; each = each->next) {
      r.posted.wait(lock, [&] { return each->num_posting == 0; });
    }
  }
  abandon_read(&host->config_, tq_socket_close);
  abandon_answers(&host->config_);
  while (Registration* last = host->registrations_) {
    if (last->queue != nullptr) napi_release_threadsafe_function(last->queue, napi_tsfn_release);
    if (last->function != nullptr) napi_delete_reference(host->env_, last->function);
    host->remove(last);
  }
  unmake(host);
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
