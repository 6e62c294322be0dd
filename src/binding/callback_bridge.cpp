#include "binding/callback_bridge.h"

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include "binding/answer_box.hpp"
#include "binding/callback_bridge.hpp"
#include "binding/host_environment.hpp"
#include "binding/log.hpp"
#include "core/result_code.h"
#include "core/session/read_session.hpp"
#include "util/hex.h"
#include "util/memory.h"
#include "util/secret.hpp"

namespace tq {
namespace {

constexpr size_t kLongestCommand = 511;
constexpr size_t kMonitorRoom = 10240;
constexpr size_t kFailureRoom = 256;    // a result without data
constexpr size_t kResultFraming = 256;  // beside the data

constexpr int64_t kEightHoursMs = 28'800'000;

// Wall-clock milliseconds plus eight hours; only logged.
int64_t own_time() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(now).count() + kEightHoursMs;
}

// A text or a question on its way to the JavaScript thread, which destroys it.
class Message {
 public:
  // Null when there is no memory.
  static Message* create(size_t capacity, Question question = 0) {
    void* room = tq_mem_malloc(sizeof(Message) + capacity);
    return room == nullptr ? nullptr : new (room) Message(capacity, question, current_read_number());
  }
  static void destroy(Message* message) {
    if (message == nullptr) return;
    wipe(message->text(), message->capacity_);
    message->~Message();
    tq_mem_free(message);
  }

  char* text() { return reinterpret_cast<char*>(this + 1); }
  size_t capacity() const { return capacity_; }
  Question question() const { return question_; }
  uint64_t read() const { return read_; }
  // False when the read that sent this has been superseded meanwhile.
  bool is_current() const { return is_newest_read(read_); }

 private:
  Message(size_t capacity, Question question, uint64_t read)
      : capacity_(capacity), question_(question), read_(read) {
    std::memset(text(), 0, capacity);
  }

  size_t capacity_;
  Question question_;
  uint64_t read_;
};

// Destroys a message at the end of the scope.
class MessageGuard {
 public:
  explicit MessageGuard(void* data) : message_(static_cast<Message*>(data)) {}
  ~MessageGuard() { Message::destroy(message_); }
  MessageGuard(const MessageGuard&) = delete;
  MessageGuard& operator=(const MessageGuard&) = delete;
  explicit operator bool() const { return message_ != nullptr; }
  Message* operator->() const { return message_; }

 private:
  Message* message_;
};

// A call into JavaScript opens its own scope: the phone opens none.
class HandleScope {
 public:
  explicit HandleScope(napi_env env) : env_(env) { napi_open_handle_scope(env, &scope_); }
  ~HandleScope() {
    if (scope_ != nullptr) napi_close_handle_scope(env_, scope_);
  }
  HandleScope(const HandleScope&) = delete;
  HandleScope& operator=(const HandleScope&) = delete;

 private:
  napi_env env_;
  napi_handle_scope scope_ = nullptr;
};

// Hands a message over, or destroys it when nobody takes it.
napi_status post(Channel channel, Message* message) {
  if (message == nullptr) return napi_generic_failure;
  const napi_status status = HostEnvironment::post(channel, message);
  if (status != napi_ok) Message::destroy(message);
  return status;
}

napi_status call_with_text(napi_env env, napi_value function, const char* text, napi_value* result) {
  napi_value argument = nullptr;
  const napi_status status = napi_create_string_utf8(env, text, NAPI_AUTO_LENGTH, &argument);
  return status == napi_ok ? call_function(env, function, 1, &argument, result) : status;
}

constinit thread_local LocationTime* t_location_time = nullptr;

// Formats into the message; false when the text does not fit.
__attribute__((format(printf, 2, 3))) bool format_text(Message& message, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int len = std::vsnprintf(message.text(), message.capacity(), format, args);
  va_end(args);
  return len >= 0 && static_cast<size_t>(len) < message.capacity();
}

bool format_monitor_record(Message& message, const monitor_param& p) {
  return format_text(
      message,
      "{\"reqid\": \"%s\", \"result_code\": %d, \"decode_times\": %d, \"time_delay\": %d, "
      "\"nfc_err_code\": %u, \"nfc_err_cmd\": \"%s\", \"card_type\": %d, \"device_id\": \"%s\", "
      "\"appid\": \"%s\", \"sod_file\": \"%s\", \"stickCard_id\": \"%s\"}",
      p.reqid, p.result_code, p.decode_times, p.time_delay, p.nfc_err_code, p.nfc_err_cmd, p.card_type,
      p.device_id, p.appid, p.sod_file, p.stickCard_id);
}

void free_data(info_data& info, size_t length) {
  if (info.data == nullptr) return;
  wipe(info.data, length);
  tq_mem_free(info.data);
  info.data = nullptr;
}

Message* format_bare_failure(int32_t code, int32_t flag) {
  Message* message = Message::create(kFailureRoom);
  if (message != nullptr) format_text(*message, "{\"code\":%d,\"flag\":%d,\"data\":\"\"}", code, flag);
  return message;
}

Message* format_failure(info_data& info) {
  if (info.flag != TQ_RESULT_TEXT) return format_bare_failure(info.code, info.flag);
  const char* text = info.data == nullptr ? "" : reinterpret_cast<const char*>(info.data);
  const size_t length = std::strlen(text);
  Message* message = Message::create(length + kResultFraming);
  if (message != nullptr) {
    format_text(*message, "{\"code\":%d, \"flag\":%d, \"data\":\"%s\"}", info.code, info.flag, text);
  }
  free_data(info, length);
  return message;
}

Message* format_json_result(info_data& info) {
  const char* text = info.data == nullptr ? "\"\"" : reinterpret_cast<const char*>(info.data);
  const size_t length = std::strlen(text);
  Message* message = Message::create(length + kResultFraming);
  if (message != nullptr) {
    format_text(*message, "{\"code\":%d,\"flag\":%d,\"data\":%s}", info.code, info.flag, text);
  }
  free_data(info, length);
  return message;
}

Message* format_binary_result(info_data& info) {
  const auto length = static_cast<uint32_t>(info.data == nullptr || info.length < 0 ? 0 : info.length);
  ScratchBuffer hex(size_t{2} * length + 1);
  Message* message = hex ? Message::create(hex.size() + kResultFraming) : nullptr;
  if (message != nullptr) {
    bytesToHexString(info.data, length, reinterpret_cast<char*>(hex.data()));
    format_text(*message, "{\"code\": %d,\"flag\":%d,\"data\":\"%s\"}", info.code, info.flag,
                reinterpret_cast<const char*>(hex.data()));
  }
  free_data(info, length);
  return message;
}

// Hands the application's text answer to the worker that waits for it.
void pass_text_answer(napi_env env, napi_value answer, Question question) {
  napi_valuetype type = napi_undefined;
  size_t length = 0;
  if (napi_typeof(env, answer, &type) != napi_ok || type != napi_string) return;
  if (napi_get_value_string_utf8(env, answer, nullptr, 0, &length) != napi_ok) return;
  ScratchBuffer text(length + 1);
  if (!text) return;
  auto* chars = reinterpret_cast<char*>(text.data());
  if (napi_get_value_string_utf8(env, answer, chars, length + 1, &length) != napi_ok) return;
  answer_text(question, {chars, length});
  TQ_LOG("调用监控数安全函数: %{public}s", chars);
}

}  // namespace

void call_card_function(napi_env env, napi_value function, void* context, void* data) {
  static_cast<void>(context);
  const MessageGuard message(data);
  if (env == nullptr || !message || !message->is_current()) return;
  const HandleScope scope(env);
  TQ_LOG("调用读卡安全函数1: %{public}s", "s");
  napi_value result = nullptr;
  const napi_status status = call_with_text(env, function, message->text(), &result);
  // What the application returns or throws does not matter.
  if (status != napi_ok && status != napi_pending_exception) lose_command(message->read());
  TQ_LOG("调用读卡安全函数: %{public}s", message->text());
}

void call_monitor_function(napi_env env, napi_value function, void* context, void* data) {
  static_cast<void>(context);
  const MessageGuard message(data);
  if (env == nullptr || !message) return;
  if (!message->is_current()) {
    drop_question(message->question());
    return;
  }
  const HandleScope scope(env);
  napi_value answer = nullptr;
  if (call_with_text(env, function, message->text(), &answer) != napi_ok) return;
  pass_text_answer(env, answer, message->question());
}

void call_timestamp_function(napi_env env, napi_value function, void* context, void* data) {
  static_cast<void>(function);
  const MessageGuard message(data);
  if (env == nullptr || !message) return;
  const HandleScope scope(env);
  napi_value time_function = nullptr;
  const auto* host = static_cast<const HostEnvironment*>(context);
  if (napi_status status = host->function_of(Channel::kTimestamp, time_function); status != napi_ok) {
    TQ_LOG("获取时间戳ts方法出现问题 : %{public}d", status);
  }
  napi_value answer = nullptr;
  int64_t time = 0;
  if (napi_status status = call_function(env, time_function, 0, nullptr, &answer); status != napi_ok) {
    TQ_LOG("获取时间戳出现了问题: %{public}d", status);
  } else if (napi_get_value_int64(env, answer, &time) != napi_ok) {
    time = 0;
  }
  answer_time(message->question(), time);
  TQ_LOG("调用时间戳安全函数4: %{public}zd", static_cast<ssize_t>(time));
}

void call_result_function(napi_env env, napi_value function, void* context, void* data) {
  const MessageGuard message(data);
  if (env == nullptr) return;
  if (!message) {  // a read has ended
    static_cast<HostEnvironment*>(context)->release_process();
    return;
  }
  const HandleScope scope(env);
  napi_value result = nullptr;
  call_with_text(env, function, message->text(), &result);
  TQ_LOG("调用返回结果安全函数: %{public}s", message->text());
}

LocationTime::LocationTime(napi_env env, napi_value function)
    : env_(env),
      status_(napi_create_reference(env, function, 1, &p_nfc_time_fun_ref_)),
      former_(std::exchange(t_location_time, this)) {}

LocationTime::~LocationTime() {
  t_location_time = former_;
  if (p_nfc_time_fun_ref_ != nullptr) napi_delete_reference(env_, p_nfc_time_fun_ref_);
}

int64_t LocationTime::ask() const {
  const HandleScope scope(env_);
  napi_value function = nullptr;
  napi_value answer = nullptr;
  int64_t time = 0;
  if (napi_get_reference_value(env_, p_nfc_time_fun_ref_, &function) != napi_ok ||
      call_function(env_, function, 0, nullptr, &answer) != napi_ok ||
      napi_get_value_int64(env_, answer, &time) != napi_ok) {
    time = 0;
  }
  TQ_LOG("获取设备NFC位置获取到时间: %{public}zd", static_cast<ssize_t>(time));
  return time;
}

}  // namespace tq

extern "C" {

int32_t cardCallback(const uint8_t* apdu, uint32_t length, uint8_t serial, void* userData) {
  using namespace tq;
  static_cast<void>(userData);
  TQ_LOG("C端准备发送读卡数据了: %{public}d", static_cast<int>(length));
  if (apdu == nullptr || length > kLongestCommand) return napi_invalid_arg;
  char hex[2 * kLongestCommand + 2] = {};
  bytesToHexString(apdu, length, hex);
  Message* message = Message::create(kBridgeText);
  if (message == nullptr) {
    lose_command(current_read_number());
    return napi_generic_failure;
  }
  format_text(*message, "{ \"cmd\": \"%s\",  \"serial_num\": \"%d\"}", hex, serial);
  TQ_LOG("C端准备发送的读卡数据: %{public}s", message->text());
  const napi_status status = post(Channel::kCard, message);
  if (status != napi_ok) lose_command(current_read_number());
  return status;
}

int32_t shareMonitorDataCallback(const monitor_param* param, char* out, uint32_t outSize) {
  using namespace tq;
  if (param == nullptr || out == nullptr) return TQ_FAILED;
  const Question question = ask_for_text();
  Message* message = Message::create(kMonitorRoom, question);
  if (message == nullptr) return TQ_FAILED;
  if (!format_monitor_record(*message, *param) || std::strlen(message->text()) >= kBridgeText) {
    Message::destroy(message);
    return TQ_FAILED;
  }
  if (post(Channel::kMonitor, message) != napi_ok) return TQ_FAILED;
  return await_text(question, {out, outSize});
}

int64_t shareGetNowTimeCallback(void) {
  using namespace tq;
  TQ_LOG("时间函数回调1: %{public}d", 1);
  const Question question = ask_for_time();
  if (post(Channel::kTimestamp, Message::create(0, question)) != napi_ok) return 0;
  TQ_LOG("获取到的时间戳A: %{public}zd", static_cast<ssize_t>(time_so_far()));
  TQ_LOG("获取到的时间戳B: %{public}lld", static_cast<long long>(own_time()));
  TQ_LOG("获取到的时间戳B: %{public}lld", static_cast<long long>(time_so_far()));
  const int64_t time = await_time(question);
  TQ_LOG("获取到的时间戳C: %{public}zd", static_cast<ssize_t>(time));
  return time;
}

void shareResultCallback(info_data* info) {
  using namespace tq;
  if (info == nullptr) return;
  Message* message = info->code < 0                 ? format_failure(*info)
                     : info->flag == TQ_RESULT_JSON ? format_json_result(*info)
                                                    : format_binary_result(*info);
  if (message == nullptr) message = format_bare_failure(TQ_FAILED, 0);  // no memory for the result itself
  post(Channel::kResult, message);
}

int64_t nfcPshareGetNowTimeCallback(void) {
  return tq::t_location_time == nullptr ? 0 : tq::t_location_time->ask();
}

}  // extern "C"
