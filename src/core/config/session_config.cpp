#include "core/config/session_config.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "core/config/environment.hpp"
#include "core/config/text_checks.h"
#include "crypto/sm3.h"
#include "util/text.hpp"

namespace {

constexpr int32_t kMaxChunkSize = 255;
constexpr int32_t kMaxLogLevel = 2;
constexpr int32_t kPortLimit = 65536;

bool is_flag(int32_t value) {
  return value == 0 || value == 1;
}

int32_t record_code(SessionConfig& cfg, int32_t code) {
  cfg.lastError = code;
  return code;
}

template <typename Function>
int32_t store_callback(SessionConfig& cfg, Function fn, Function& slot, auto& is_set) {
  is_set = 0;
  if (fn == nullptr) {
    cfg.lastError = TQ_OUT_OF_RANGE;
    return TQ_MISSING_CALL;
  }
  slot = fn;
  is_set = 1;
  return TQ_OK;
}

int32_t store_serial_number(SessionConfig& cfg, const char* text, char (&slot)[TQ_DEVICE_ID_MAX]) {
  std::fill(std::begin(slot), std::end(slot), '\0');
  return SN_check(text, slot) < 0 ? record_code(cfg, TQ_BAD_SERIAL_NUMBER) : TQ_OK;
}

void store_package_digest(SessionConfig& cfg, const char* package_name) {
  cfg.packageDigestSet = 0;
  if (tq::is_empty(package_name)) return;
  TQ_sm3(reinterpret_cast<const uint8_t*>(package_name), static_cast<int32_t>(std::strlen(package_name)),
         cfg.packageDigest);
  cfg.packageDigestSet = 1;
}

int32_t store_server(SessionConfig& cfg, const char* ip, int32_t port) {
  std::fill(std::begin(cfg.ip), std::end(cfg.ip), '\0');
  const size_t len = ip == nullptr ? 0 : std::strlen(ip);
  if (len >= sizeof cfg.ip) return record_code(cfg, TQ_OUT_OF_RANGE);
  std::copy_n(ip, len, cfg.ip);
  if (port < 0 || port >= kPortLimit) return record_code(cfg, TQ_OUT_OF_RANGE);
  cfg.port = static_cast<uint16_t>(port);
  return TQ_OK;
}

}  // namespace

extern "C" {

int32_t share_init(SessionConfig* cfg, const char* appid, int32_t readChunkSize, int32_t decodeMode,
                   int32_t mode, int32_t frameFlag, int32_t logLevel, int32_t envIdCode, const char* sn1,
                   const char* sn2, const char* sn3, const char* packageName, int32_t terId, const char* ip,
                   int32_t port) {
  if (cfg == nullptr) return TQ_MISSING_CALL;
  cfg->initDone = 0;
  std::fill(std::begin(cfg->appid), std::end(cfg->appid), uint8_t{0});
  if (int32_t rc = appid_check(appid, cfg->appid); rc < 0) return record_code(*cfg, rc);
  if (int32_t rc = store_serial_number(*cfg, sn1, cfg->sn1); rc < 0) return rc;
  if (int32_t rc = store_serial_number(*cfg, sn2, cfg->sn2); rc < 0) return rc;
  if (int32_t rc = store_serial_number(*cfg, sn3, cfg->sn3); rc < 0) return rc;

  const bool in_range = is_flag(decodeMode) && is_flag(frameFlag) && readChunkSize >= 1 &&
                        readChunkSize <= kMaxChunkSize && (mode == 1 || mode == 2) && logLevel >= 0 &&
                        logLevel <= kMaxLogLevel && tq::is_environment(envIdCode);
  if (!in_range) return record_code(*cfg, TQ_OUT_OF_RANGE);

  std::fill(std::begin(cfg->lastCommand), std::end(cfg->lastCommand), uint8_t{0});
  cfg->lastCommandLength = 0;
  cfg->readChunkSize = static_cast<uint8_t>(readChunkSize);
  cfg->logLevel = static_cast<uint8_t>(logLevel);
  cfg->decodeMode = static_cast<uint8_t>(decodeMode);
  cfg->readMode = mode == 1 ? 1 : 0;
  cfg->envIdCode = static_cast<uint32_t>(envIdCode);
  cfg->frameFlag = static_cast<uint8_t>(frameFlag);
  cfg->terId = static_cast<uint8_t>(static_cast<uint32_t>(terId) & 0xFF);
  store_package_digest(*cfg, packageName);
  if (int32_t rc = store_server(*cfg, ip, port); rc < 0) return rc;

  cfg->reqidVersion = 0;
  cfg->queryInfoPending = 0;
  cfg->queryInfo[0] = 1;
  cfg->queryInfo[1] = 0;
  cfg->queryInfo[2] = 0;
  cfg->initDone = 1;
  return record_code(*cfg, TQ_OK);
}

int32_t share_set_reqid_version(SessionConfig* cfg, int32_t version) {
  if (cfg == nullptr) return TQ_MISSING_CALL;
  if (!is_flag(version)) return TQ_OUT_OF_RANGE;
  cfg->reqidVersion = static_cast<uint8_t>(version);
  return TQ_OK;
}

int32_t share_register_card_callback(SessionConfig* cfg, tq_card_callback fn, void* userData) {
  if (cfg == nullptr) return TQ_MISSING_CALL;
  const int32_t rc = store_callback(*cfg, fn, cfg->cardCallback, cfg->cardCallbackSet);
  if (rc == TQ_OK) cfg->cardCallbackData = userData;
  return rc;
}

int32_t share_register_monitor_callback(SessionConfig* cfg, tq_monitor_callback fn) {
  if (cfg == nullptr) return TQ_MISSING_CALL;
  return store_callback(*cfg, fn, cfg->monitorCallback, cfg->monitorCallbackSet);
}

int32_t share_register_timestamp_callback(SessionConfig* cfg, tq_timestamp_callback fn) {
  if (cfg == nullptr) return TQ_MISSING_CALL;
  return store_callback(*cfg, fn, cfg->timestampCallback, cfg->timestampCallbackSet);
}

int32_t share_register_result_callback(SessionConfig* cfg, tq_result_callback fn) {
  if (cfg == nullptr) return TQ_MISSING_CALL;
  return store_callback(*cfg, fn, cfg->resultCallback, cfg->resultCallbackSet);
}

int32_t check_function_call(SessionConfig* cfg) {
  if (cfg == nullptr) return TQ_MISSING_CALL;
  const bool complete = cfg->initDone == 1 && cfg->cardCallbackSet == 1 && cfg->monitorCallbackSet == 1 &&
                        cfg->timestampCallbackSet == 1 && cfg->resultCallbackSet == 1;
  if (complete && cfg->queryInfoPending != 1) return TQ_OK;
  return cfg->lastError < 0 ? cfg->lastError : TQ_MISSING_CALL;
}

int32_t share_setQueryInfoParameterWithCardInfoState(SessionConfig* cfg, uint32_t a, uint32_t b, uint32_t c) {
  if (cfg == nullptr) return TQ_MISSING_CALL;
  if (cfg->initDone != 1) return record_code(*cfg, TQ_MISSING_CALL);
  cfg->queryInfoPending = 1;
  if (a >= 3 || b >= 2 || c >= 2) return record_code(*cfg, TQ_OUT_OF_RANGE);
  if (cfg->readMode == 1) {
    if (a == 0) return record_code(*cfg, TQ_QUERY_INFO_WITHOUT_A);
    if (c == 1) return record_code(*cfg, TQ_QUERY_INFO_WITH_C);
  } else if (a != 0 && c == 1) {
    return record_code(*cfg, TQ_QUERY_INFO_A_AND_C);
  }
  cfg->queryInfo[0] = static_cast<uint8_t>(a);
  cfg->queryInfo[1] = static_cast<uint8_t>(b);
  cfg->queryInfo[2] = static_cast<uint8_t>(c);
  cfg->queryInfoPending = 0;
  return TQ_OK;
}

const char* share_getVersion(void) {
  return "1.0.6";
}

int32_t getNowTimestemp_String(SessionConfig* cfg, char* out) {
  if (cfg == nullptr || out == nullptr || cfg->timestampCallback == nullptr) return TQ_FAILED;
  constexpr size_t kDecimalText = 21;  // sign, 19 digits, NUL
  return std::snprintf(out, kDecimalText, "%lld", static_cast<long long>(cfg->timestampCallback()));
}

}  // extern "C"
