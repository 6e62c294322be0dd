// The N-API module `tqreader`: its registration and its exported functions. None of them throws; every
// failure is a code.

#include <napi/native_api.h>

#include <iterator>

#include "binding/arguments.hpp"
#include "binding/callback_bridge.h"
#include "binding/callback_bridge.hpp"
#include "binding/host_environment.hpp"
#include "binding/log.hpp"
#include "binding/module.hpp"
#include "idcard/id_card_session.h"
#include "location/location_request.h"
#include "net/wait.hpp"
#include "passport/passport_session.h"
#include "probe/latency_probe.h"
#include "util/hex.h"
#include "util/secret.hpp"

namespace tq {
namespace {

constexpr int32_t kReadChunkSize = 212;
constexpr int32_t kFrameFlag = 1;
constexpr int32_t kLogLevel = 2;
constexpr uint32_t kProbePort = 9999;
constexpr uint32_t kLocationLogLevel = 0;
constexpr uint32_t kLocationType = 2;
constexpr size_t kTextSize = 1024;
constexpr size_t kAnswerTextSize = 10240;

napi_value init_sdk(napi_env env, napi_callback_info info) {
  const Arguments<11> args(env, info);
  const TextArgument<128> appid(args, 0);
  const int32_t decode_mode = args.integer(1);
  const int32_t read_mode = args.integer(2);
  const int32_t environment = args.integer(3);
  const TextArgument<kTextSize> file_path(args, 4);
  const TextArgument<kTextSize> package_name(args, 5);
  const int32_t terminal_id = args.integer(6);
  const TextArgument<kTextSize> ip(args, 7);
  const int32_t port = args.integer(8);
  const int32_t reqid_type = args.integer(9);
  const TextArgument<kTextSize> sn(args, 10);
  TQ_LOG("ip: %{public}s", ip.c_str());
  TQ_LOG("port: %{public}d", port);
  TQ_LOG("file_path: %{public}s", file_path.c_str());
  TQ_LOG("terId: %{public}X", static_cast<unsigned>(terminal_id));
  TQ_LOG("envIdCode: %{public}d", environment);
  TQ_LOG("packageName: %{public}s", package_name.c_str());
  TQ_LOG("appid: %{public}s", appid.c_str());
  TQ_LOG("reqidType: %{public}d", reqid_type);
  TQ_LOG("sn: " TQ_PERSONAL("s"), sn.c_str());

  SessionConfig& cfg = args.host().config();
  int32_t rc = share_init(&cfg, appid.c_str(), kReadChunkSize, decode_mode, read_mode, kFrameFlag, kLogLevel,
                          environment, sn.c_str(), sn.c_str(), sn.c_str(), package_name.c_str(), terminal_id,
                          ip.c_str(), port);
  TQ_LOG("初始化: %{public}d", rc);
  if (rc == TQ_OK) {
    rc = share_set_reqid_version(&cfg, reqid_type);
    TQ_LOG("设置reqid版本: %{public}d", rc);
  }
  return args.result(rc);
}

napi_value get_billing_model(napi_env env, napi_callback_info info) {
  return Arguments<1>(env, info).result(0);
}

napi_value get_id_info(napi_env env, napi_callback_info info) {
  const Arguments<1> args(env, info);
  const int32_t rc = args.host().start_id_card_read();
  TQ_LOG("调用身份证解码主函数: %{public}d", rc);
  return args.result(rc);
}

// Here, unlike elsewhere, an argument that is no text is refused.
napi_value get_passport_info(napi_env env, napi_callback_info info) {
  const Arguments<3> args(env, info);
  const TextArgument<30> number(args, 0);
  if (!number.given()) return args.result(TQ_BAD_ARGUMENTS);
  TQ_LOG("idNumber: " TQ_PERSONAL("s"), number.c_str());
  const TextArgument<20> birth(args, 1);
  if (!birth.given()) return args.result(TQ_BAD_ARGUMENTS);
  TQ_LOG("birthday: " TQ_PERSONAL("s"), birth.c_str());
  const TextArgument<20> expiry(args, 2);
  if (!expiry.given()) return args.result(TQ_BAD_ARGUMENTS);
  TQ_LOG("expiryDate: " TQ_PERSONAL("s"), expiry.c_str());
  const int32_t rc = args.host().start_passport_read(number.c_str(), birth.c_str(), expiry.c_str());
  TQ_LOG("调用护照解码主函数: %{public}d", rc);
  return args.result(rc);
}

napi_value register_timestamp_callback(napi_env env, napi_callback_info info) {
  const Arguments<1> args(env, info);
  const bool opened = args.host().open_channel(Channel::kTimestamp, args.value(0), call_timestamp_function);
  const int32_t rc =
      share_register_timestamp_callback(&args.host().config(), opened ? shareGetNowTimeCallback : nullptr);
  TQ_LOG("注册时间戳回调: %{public}d", rc);
  return args.result(rc);
}

napi_value register_result_callback(napi_env env, napi_callback_info info) {
  const Arguments<1> args(env, info);
  const bool opened = args.host().open_channel(Channel::kResult, args.value(0), call_result_function);
  const int32_t rc =
      share_register_result_callback(&args.host().config(), opened ? shareResultCallback : nullptr);
  TQ_LOG("注册结果数据回调: %{public}d", rc);
  return args.result(rc);
}

napi_value register_monitor_callback(napi_env env, napi_callback_info info) {
  const Arguments<1> args(env, info);
  const bool opened = args.host().open_channel(Channel::kMonitor, args.value(0), call_monitor_function);
  const int32_t rc =
      share_register_monitor_callback(&args.host().config(), opened ? shareMonitorDataCallback : nullptr);
  TQ_LOG("注册监控数据回调: %{public}d", rc);
  return args.result(rc);
}

napi_value register_card_callback(napi_env env, napi_callback_info info) {
  const Arguments<1> args(env, info);
  const bool opened = args.host().open_channel(Channel::kCard, args.value(0), call_card_function);
  const int32_t rc =
      share_register_card_callback(&args.host().config(), opened ? cardCallback : nullptr, nullptr);
  TQ_LOG("注册读卡回调: %{public}d", rc);
  return args.result(rc);
}

using AnswerHandler = void (*)(SessionConfig* cfg, const uint8_t* data, uint32_t length, uint8_t serial,
                               int32_t status);

void hand_over_answer(const Arguments<3>& args, AnswerHandler handler) {
  const int32_t serial = args.integer(1);
  const auto serial_byte = static_cast<uint8_t>(static_cast<uint32_t>(serial) & 0xFF);
  const int32_t status = args.integer(2);
  SessionConfig* cfg = &args.host().config();
  ScratchBuffer text(kAnswerTextSize);
  ScratchBuffer bytes(kAnswerTextSize);
  if (!text || !bytes) {
    handler(cfg, nullptr, 0, serial_byte, status);
    return;
  }
  auto* hex = reinterpret_cast<char*>(text.data());
  args.text(0, hex, text.size());
  const uint32_t length = hex[0] == '\0' ? 0 : hexStringToBytes(hex, bytes.data());
  TQ_LOG("nfc读卡返回数据结果: status:%{public}d, serial_num:%{public}d, data:" TQ_PERSONAL("s"), status,
         serial, hex);
  handler(cfg, bytes.data(), length, serial_byte, status);
}

napi_value take_id_card_answer(napi_env env, napi_callback_info info) {
  hand_over_answer(Arguments<3>(env, info), id_card_handler);
  return nullptr;
}

napi_value take_passport_answer(napi_env env, napi_callback_info info) {
  hand_over_answer(Arguments<3>(env, info), passport_handler);
  return nullptr;
}

napi_value cancel_card(napi_env env, napi_callback_info info) {
  const Arguments<1> args(env, info);
  const int32_t type = args.integer(0);
  TQ_LOG("调用取消操作: %{public}d", type);
  if (type == 0) args.host().cancel_read(ReadKind::kIdentityCard);
  if (type == 1) args.host().cancel_read(ReadKind::kPassport);
  return args.result(0);
}

// While a service waits on the thread of its environment. That the environment is being ended is told to
// nobody there, but JavaScript cannot be called any more then: comparing values says so.
class ServiceWait {
 public:
  explicit ServiceWait(napi_env env) : env_(env), ends_(has_ended, this) { napi_get_undefined(env, &value_); }

 private:
  static bool has_ended(void* self) {
    const auto& wait = *static_cast<const ServiceWait*>(self);
    bool equal = false;
    return napi_strict_equals(wait.env_, wait.value_, wait.value_, &equal) != napi_ok;
  }

  napi_env env_;
  napi_value value_ = nullptr;
  net::WaitsEndWhen ends_;
};

napi_value get_time_delay(napi_env env, napi_callback_info info) {
  const Arguments<2> args(env, info);
  const int32_t count = args.integer(0);
  const TextArgument<kTextSize> ip(args, 1);
  TQ_LOG("获取时延次数: %{public}d", count);
  TQ_LOG("获取时延ip: %{public}s", ip.c_str());
  const ServiceWait wait(env);
  return args.result(tq_check_socket_info(count, ip.c_str(), kProbePort));
}

// The location service's record of each thread that asks.
constinit thread_local ScpContext t_scp_context{};

napi_value get_device_nfc_location(napi_env env, napi_callback_info info) {
  const Arguments<7> args(env, info);
  const TextArgument<kTextSize> appid(args, 0);
  const int32_t environment = args.integer(1);
  const TextArgument<kTextSize> ip(args, 2);
  const int32_t port = args.integer(3);
  const TextArgument<kTextSize> manufacturer(args, 4);
  const TextArgument<kTextSize> market_name(args, 5);
  TQ_LOG("获取设备NFC位置appid: %{public}s", appid.c_str());
  TQ_LOG("获取设备NFC位置envCode: %{public}d", environment);
  TQ_LOG("获取设备NFC位置ip: %{public}s", ip.c_str());
  TQ_LOG("获取设备NFC位置port: %{public}d", port);
  TQ_LOG("获取设备NFC位置manufacture: %{public}s", manufacturer.c_str());
  TQ_LOG("获取设备NFC位置marketName: %{public}s", market_name.c_str());
  const LocationTime time(env, args.value(6));
  if (time.status() != napi_ok) {
    TQ_LOG("获取设备NFC位置获取时间函数失败: %{public}d", time.status());
    return args.result(0);
  }
  const ServiceWait wait(env);
  ScpContext& context = t_scp_context;
  int32_t rc = scp_init(&context, appid.c_str(), environment, kLocationLogLevel, kLocationType,
                        manufacturer.c_str(), market_name.c_str(), ip.c_str(), static_cast<uint32_t>(port));
  if (rc == TQ_OK) rc = scp_register_GT_callback(&context, nfcPshareGetNowTimeCallback);
  uint32_t location = 0;
  if (rc == TQ_OK) rc = scp_authentication(&context, &location);
  if (rc != TQ_OK) return args.result(rc);
  TQ_LOG("获取设备NFC位置信息: %{public}d", static_cast<int>(location));
  return args.result(static_cast<int32_t>(location));
}

// While an environment ends the engine may still run script, after the cleanup hook.
template <napi_callback function>
napi_value unless_gone(napi_env env, napi_callback_info info) {
  void* id = nullptr;
  napi_value code = nullptr;
  napi_get_cb_info(env, info, nullptr, nullptr, nullptr, &id);
  if (HostEnvironment::of(id) != nullptr) return function(env, info);
  return napi_create_int32(env, TQ_MISSING_CALL, &code) == napi_ok ? code : nullptr;
}

template <napi_callback function>
constexpr napi_property_descriptor exported(const char* name) {
  return {name, nullptr, unless_gone<function>, nullptr, nullptr, nullptr, napi_default, nullptr};
}

// The exported functions in their documented order.
constexpr napi_property_descriptor kExports[] = {
    exported<init_sdk>("initSdk"),
    exported<get_billing_model>("getBillingModel"),
    exported<get_id_info>("getIdInfo"),
    exported<get_passport_info>("getPassportInfo"),
    exported<register_timestamp_callback>("registerTimestampCallback"),
    exported<take_id_card_answer>("idCardHandler"),
    exported<take_passport_answer>("passportHandler"),
    exported<register_result_callback>("registerResultCallback"),
    exported<register_monitor_callback>("registerMonitorCallback"),
    exported<register_card_callback>("registerCardCallback"),
    exported<cancel_card>("cancelCard"),
    exported<get_time_delay>("getTimeDelay"),
    exported<get_device_nfc_location>("getDeviceNFCLocation"),
};

}  // namespace

napi_value init_module(napi_env env, napi_value exports) {
  void* id = HostEnvironment::create(env);
  if (id == nullptr) return exports;
  napi_property_descriptor properties[std::size(kExports)];
  for (size_t i = 0; i < std::size(kExports); ++i) {
    properties[i] = kExports[i];
    properties[i].data = id;
  }
  napi_define_properties(env, exports, std::size(properties), properties);
  return exports;
}

namespace {

napi_module g_module = {1, 0, nullptr, init_module, "tqreader", nullptr, {nullptr}};

}  // namespace
}  // namespace tq

// The phone registers modules this way; some versions of Node.js call it deprecated.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
extern "C" __attribute__((constructor)) void RegisterTQReaderModule(void) {
  napi_module_register(&tq::g_module);
}
#pragma GCC diagnostic pop
