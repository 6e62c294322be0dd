#include "binding/callback_bridge.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <utility>

#include "binding/answer_box.hpp"
#include "binding/callback_bridge.hpp"
#include "binding/host_environment.hpp"
#include "binding/log.hpp"
#include "binding/message.hpp"
#include "core/result_code.h"
#include "core/session/read_session.hpp"
#include "util/clock.hpp"
#include "util/format_text.hpp"
#include "util/hex.h"
#include "util/memory.h"
#include "util/secret.hpp"

namespace tq {
namespace {

constexpr size_t kLongestCommand = 511;
constexpr size_t kMonitorRoom = 10240;
constexpr size_t kFailureRoom = 256;    // a result without data
constexpr size_t kResultFraming = 256;  // beside the data

// Wall-clock milliseconds plus eight hours; only logged.
int64_t own_time() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::milliseconds>(now).count() + kEightHoursMs;
}

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

napi_status call_with_text(napi_env env, napi_value function, const char* text, napi_value* result) {
  napi_value argument = nullptr;
  const napi_status status = napi_create_string_utf8(env, text, NAPI_AUTO_LENGTH, &argument);
  return status == napi_ok ? call_function(env, function, 1, &argument, result) : status;
}

constinit thread_local LocationTime* t_location_time = nullptr;

// A text as it stands between the quotes of a JSON string (RFC 8259, section 7).
class JsonText {
 public:
  explicit JsonText(const char* text) : room_(text == nullptr ? 1 : kLongestEscape * std::strlen(text) + 1) {
    if (room_ && text != nullptr) write(text);
  }
  explicit operator bool() const { return static_cast<bool>(room_); }
  const char* c_str() const { return reinterpret_cast<const char*>(room_.bytes().data()); }

 private:
  static constexpr size_t kLongestEscape = 6;

  void write(const char* text) {
    auto* out = reinterpret_cast<char*>(room_.data());
    for (; *text != '\0'; ++text) {
      if (static_cast<unsigned char>(*text) < 0x20) {
        out += std::snprintf(out, kLongestEscape + 1, "\\u%04x", static_cast<unsigned>(*text));
        continue;
      }
      if (*text == '"' || *text == '\\') *out++ = '\\';
      *out++ = *text;
    }
  }

  ScratchBuffer room_;
};

bool format_monitor_record(Message& message, const monitor_param& p) {
  const JsonText reqid(p.reqid);
  const JsonText command(p.nfc_err_cmd);
  const JsonText device(p.device_id);
  const JsonText appid(p.appid);
  const JsonText sod(p.sod_file);
  const JsonText stick(p.stickCard_id);
  if (!reqid || !command || !device || !appid || !sod || !stick) return false;
  return format_text(
      message.room(),
      "{\"reqid\": \"%s\", \"result_code\": %d, \"decode_times\": %d, \"time_delay\": %d, "
      "\"nfc_err_code\": %u, \"nfc_err_cmd\": \"%s\", \"card_type\": %d, \"device_id\": \"%s\", "
      "\"appid\": \"%s\", \"sod_file\": \"%s\", \"stickCard_id\": \"%s\"}",
      reqid.c_str(), p.result_code, p.decode_times, p.time_delay, p.nfc_err_code, command.c_str(),
      p.card_type, device.c_str(), appid.c_str(), sod.c_str(), stick.c_str());
}

void free_data(info_data& info, size_t length) {
  if (info.data == nullptr) return;
  wipe(info.data, length);
  tq_mem_free(info.data);
  info.data = nullptr;
}

OwnMessage format_bare_failure(int32_t code, int32_t flag) {
  OwnMessage message = Message::create(kFailureRoom);
  if (message != nullptr) format_text(message->room(), "{\"code\":%d,\"flag\":%d,\"data\":\"\"}", code, flag);
  return message;
}

OwnMessage format_failure(info_data& info) {
  if (info.flag != TQ_RESULT_TEXT) return format_bare_failure(info.code, info.flag);
  const char* text = info.data == nullptr ? "" : reinterpret_cast<const char*>(info.data);
  const size_t length = std::strlen(text);
  OwnMessage message = Message::create(length + kResultFraming);
  if (message != nullptr) {
    format_text(message->room(), "{\"code\":%d, \"flag\":%d, \"data\":\"%s\"}", info.code, info.flag, text);
  }
  free_data(info, length);
  return message;
}

OwnMessage format_json_result(info_data& info) {
  const char* text = info.data == nullptr ? "\"\"" : reinterpret_cast<const char*>(info.data);
  const size_t length = std::strlen(text);
  OwnMessage message = Message::create(length + kResultFraming);
  if (message != nullptr) {
    format_text(message->room(), "{\"code\":%d,\"flag\":%d,\"data\":%s}", info.code, info.flag, text);
  }
  free_data(info, length);
  return message;
}

OwnMessage format_binary_result(info_data& info) {
  const auto length = static_cast<uint32_t>(info.data == nullptr || info.length < 0 ? 0 : info.length);
  ScratchBuffer hex(size_t{2} * length + 1);
  OwnMessage message = hex ? Message::create(hex.size() + kResultFraming) : nullptr;
  if (message != nullptr) {
    bytesToHexString(info.data, length, reinterpret_cast<char*>(hex.data()));
    format_text(message->room(), "{\"code\": %d,\"flag\":%d,\"data\":\"%s\"}", info.code, info.flag,
                reinterpret_cast<const char*>(hex.data()));
  }
  free_data(info, length);
  return message;
}

// Hands the application's text answer to the worker that waits for it.
void pass_text_answer(napi_env env, napi_value answer, QuestionNumber question) {
  napi_valuetype type = napi_undefined;
  size_t length = 0;
  if (napi_typeof(env, answer, &type) != napi_ok || type != napi_string) return;
  if (napi_get_value_string_utf8(env, answer, nullptr, 0, &length) != napi_ok) return;
  ScratchBuffer text(length + 1);
  if (!text) return;
  auto* chars = reinterpret_cast<char*>(text.data());
  if (napi_get_value_string_utf8(env, answer, chars, length + 1, &length) != napi_ok) return;
  answer_text(question, {chars, length});
  TQ_LOG("调用监控数安全函数: " TQ_PERSONAL("s"), chars);
}

}  // namespace

void call_card_function(napi_env env, napi_value function, void* context, void* data) {
  static_cast<void>(data);
  if (env == nullptr) return;
  const OwnMessage message = HostEnvironment::take_message(context);
  if (!message || !message->is_current()) return;
  const HandleScope scope(env);
  TQ_LOG("调用读卡安全函数1: %{public}s", "s");
  napi_value command = nullptr;
  napi_value result = nullptr;
  if (napi_create_string_utf8(env, message->text(), NAPI_AUTO_LENGTH, &command) != napi_ok) {
    lose_command(message->read());
    return;
  }
  call_function(env, function, 1, &command,
                &result);  // what the application returns or throws does not matter
  TQ_LOG("调用读卡安全函数: " TQ_PERSONAL("s"), message->text());
}

void call_monitor_function(napi_env env, napi_value function, void* context, void* data) {
  static_cast<void>(data);
  if (env == nullptr) return;
  const OwnMessage message = HostEnvironment::take_message(context);
  if (!message) return;
  if (message->read() != 0 && !begin_report(message->read())) {
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
  static_cast<void>(data);
  if (env == nullptr) return;
  const OwnMessage message = HostEnvironment::take_message(context);
  const HostEnvironment* host = HostEnvironment::of(context);
  if (!message || host == nullptr) return;
  const HandleScope scope(env);
  napi_value time_function = nullptr;
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
  TQ_LOG("调用时间戳安全函数4: " TQ_PERSONAL("zd"), static_cast<ssize_t>(time));
}

void call_result_function(napi_env env, napi_value function, void* context, void* data) {
  static_cast<void>(data);
  if (env == nullptr) return;
  if (const OwnMessage message = HostEnvironment::take_message(context)) {
    const HandleScope scope(env);
    napi_value result = nullptr;
    call_with_text(env, function, message->text(), &result);
    TQ_LOG("调用返回结果安全函数: " TQ_PERSONAL("s"), message->text());
  }
  // A result, or the end of a read, which comes without one: either may be the last thing to wait for.
  if (HostEnvironment* host = HostEnvironment::of(context)) host->release_process();
}

LocationTime::LocationTime(napi_env env, napi_value function)
    : env_(env),
      status_(napi_create_reference(env, function, 1, &function_)),
      former_(std::exchange(t_location_time, this)) {}

LocationTime::~LocationTime() {
  t_location_time = former_;
  if (function_ != nullptr) napi_delete_reference(env_, function_);
}

int64_t LocationTime::ask() const {
  const HandleScope scope(env_);
  napi_value function = nullptr;
  napi_value answer = nullptr;
  int64_t time = 0;
  if (napi_get_reference_value(env_, function_, &function) != napi_ok ||
      call_function(env_, function, 0, nullptr, &answer) != napi_ok ||
      napi_get_value_int64(env_, answer, &time) != napi_ok) {
    time = 0;
  }
  TQ_LOG("获取设备NFC位置获取到时间: " TQ_PERSONAL("zd"), static_cast<ssize_t>(time));
  return time;
}

}  // namespace tq

extern "C" {

int32_t cardCallback(const uint8_t* apdu, uint32_t length, uint8_t serial, void* userData) {
  using namespace tq;
  static_cast<void>(userData);
  TQ_LOG("C端准备发送读卡数据了: %{public}d", static_cast<int>(length));
  if (apdu == nullptr || length > kLongestCommand) {
    lose_command(current_read_number());
    return napi_invalid_arg;
  }
  Secret<2 * kLongestCommand + 2> hex;
  bytesToHexString(apdu, length, reinterpret_cast<char*>(hex.data()));
  OwnMessage message = Message::create(kBridgeText);
  napi_status status = napi_generic_failure;
  if (message) {
    format_text(message->room(), "{ \"cmd\": \"%s\",  \"serial_num\": \"%d\"}",
                reinterpret_cast<const char*>(hex.data()), serial);
    TQ_LOG("C端准备发送的读卡数据: " TQ_PERSONAL("s"), message->text());
    status = HostEnvironment::post(Channel::kCard, std::move(message));
  }
  if (status != napi_ok) lose_command(current_read_number());
  return status;
}

int32_t shareMonitorDataCallback(const monitor_param* param, char* out, uint32_t outSize) {
  using namespace tq;
  if (param == nullptr || out == nullptr) return TQ_FAILED;
  const Question question;
  OwnMessage message = Message::create(kMonitorRoom, question.number());
  if (!message || !format_monitor_record(*message, *param)) return TQ_FAILED;
  if (std::strlen(message->text()) >= kBridgeText) return TQ_FAILED;
  if (HostEnvironment::post(Channel::kMonitor, std::move(message)) != napi_ok) return TQ_FAILED;
  return question.await_text({out, outSize});
}

int64_t shareGetNowTimeCallback(void) {
  using namespace tq;
  TQ_LOG("时间函数回调1: %{public}d", 1);
  const Question question;
  OwnMessage message = Message::create(0, question.number());
  if (!message || HostEnvironment::post(Channel::kTimestamp, std::move(message)) != napi_ok) return 0;
  TQ_LOG("获取到的时间戳A: " TQ_PERSONAL("zd"), static_cast<ssize_t>(question.time_so_far()));
  TQ_LOG("获取到的时间戳B: " TQ_PERSONAL("lld"), static_cast<long long>(own_time()));
  TQ_LOG("获取到的时间戳B: " TQ_PERSONAL("lld"), static_cast<long long>(question.time_so_far()));
  const int64_t time = question.await_time();
  TQ_LOG("获取到的时间戳C: " TQ_PERSONAL("zd"), static_cast<ssize_t>(time));
  return time;
}

void shareResultCallback(info_data* info) {
  using namespace tq;
  if (info == nullptr) return;
  OwnMessage message = info->code < 0                 ? format_failure(*info)
                       : info->flag == TQ_RESULT_JSON ? format_json_result(*info)
                                                      : format_binary_result(*info);
  if (!message) message = format_bare_failure(TQ_FAILED, 0);  // no memory for the result itself
  if (message) HostEnvironment::post(Channel::kResult, std::move(message));
}

int64_t nfcPshareGetNowTimeCallback(void) {
  return tq::t_location_time == nullptr ? 0 : tq::t_location_time->ask();
}

}  // extern "C"
