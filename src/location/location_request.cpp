#include "location/location_request.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <iterator>
#include <span>
#include <string_view>

#include "core/config/environment.hpp"
#include "core/config/session_config.h"
#include "crypto/sm4_padding.h"
#include "location/https_exchange.hpp"
#include "location/location_values.h"
#include "protocol/frames.hpp"
#include "util/byte_cursor.hpp"
#include "util/secret.hpp"

namespace tq {
namespace {

constexpr std::string_view kShortAppidFiller = "0000000000000";
constexpr size_t kShortAppidLength = TQ_SCP_APPID_LENGTH - kShortAppidFiller.size();
constexpr uint32_t kMaxLogLevel = 2;
constexpr uint32_t kMaxPort = 65535;
constexpr size_t kExchangeRoom = 1024;  // for the request, and for the answer in its place

constexpr uint8_t kFrameHeader = 0x93;
constexpr uint32_t kCommand = 0x9300;
constexpr uint32_t kRequestVersion = 0x0001;
constexpr uint32_t kRequestParameter = 0x001C;
constexpr uint8_t kRequestType = 0xA1;
constexpr uint8_t kRequestMark = 0x10;
constexpr size_t kFrameOverhead = 12 + TQ_SCP_APPID_LENGTH;

constexpr uint8_t kPlainMark = 0x10;
constexpr size_t kTimeDigits = 13;
constexpr size_t kPlainMax = 1 + TQ_SCP_APPID_LENGTH + kTimeDigits + 1 + 2 * size_t{1 + TQ_SCP_NAME_MAX} + 1;

constexpr size_t kStatusBytes = 3;
constexpr uint32_t kLeastAnswerParameter = 8;
constexpr uint8_t kAnswerType = 0xAA;
constexpr size_t kLeastAnswer = 12;

constexpr size_t kBlockLength = 16;
constexpr int32_t kModeCbc = 0;

int32_t check_name(const char* text) {
  return text != nullptr && std::strlen(text) <= TQ_SCP_NAME_MAX ? TQ_OK : TQ_FAILED;
}

// Fills a field with a text and zeros, and always leaves a NUL at its end.
template <size_t N>
void store_text(char (&field)[N], std::string_view text) {
  std::fill(std::begin(field), std::end(field), '\0');
  std::copy_n(text.begin(), std::min(text.size(), N - 1), field);
}

void store_appid(char (&field)[32], std::string_view appid) {
  store_text(field, appid);
  if (appid.size() == kShortAppidLength) {
    std::copy(kShortAppidFiller.begin(), kShortAppidFiller.end(), field + kShortAppidLength);
  }
}

int32_t record(ScpContext& context, int32_t code) {
  context.lastError = code;
  return code;
}

std::span<const uint8_t> bytes_of(const char* text, size_t len) {
  return {reinterpret_cast<const uint8_t*>(text), len};
}

void write_name(ByteWriter& w, const char* name) {
  const size_t len = ::strnlen(name, TQ_SCP_NAME_MAX);
  w.u8(static_cast<unsigned>(len));
  w.bytes(bytes_of(name, len));
}

// What the request says, before encryption. The time has its 13 places whatever the clock says.
void write_plain(ByteWriter& w, const ScpContext& context) {
  std::array<char, 24> time{};
  const WipeOnExit wipe_time(time);
  std::to_chars(time.data(), time.data() + time.size(), context.timeSource());
  w.u8(kPlainMark);
  w.bytes(bytes_of(context.appid, TQ_SCP_APPID_LENGTH));
  w.bytes(bytes_of(time.data(), kTimeDigits));
  w.u8(context.type & 0xFF);
  write_name(w, context.manufacturer);
  write_name(w, context.model);
  w.u8(low_byte_sum(w.written()));
}

// The 9300 frame. Its length, or TQ_FAILED when it does not fit.
int32_t build_request(const ScpContext& context, std::span<uint8_t> out) {
  Secret<kPlainMax + kBlockLength> plain;
  Secret<kKeyLength> key;
  ByteWriter content(plain.bytes().first(kPlainMax));
  write_plain(content, context);
  if (!content.ok()) return TQ_FAILED;
  scp_getPublicKey(context.envIdCode, key.data());
  const int32_t len =
      scp_sm4Encrypt(plain.data(), static_cast<int32_t>(content.size()), key.data(), kModeCbc, plain.data());
  if (len < 0) return TQ_FAILED;
  const auto sealed = plain.bytes().first(static_cast<size_t>(len));

  const size_t total = sealed.size() + kFrameOverhead;
  if (total > out.size()) return TQ_FAILED;
  ByteWriter w(out);
  w.u8(kFrameHeader);
  w.number(static_cast<uint32_t>(total), 2);
  w.number(kCommand, 2);
  w.number(kRequestVersion, 2);
  w.number(kRequestParameter, 2);
  w.u8(kRequestType);
  w.u8(kRequestMark);
  w.bytes(bytes_of(context.appid, TQ_SCP_APPID_LENGTH));
  w.bytes(sealed);
  w.u8(low_byte_sum(w.written().subspan(1)));
  return w.ok() ? static_cast<int32_t>(w.size()) : TQ_FAILED;
}

// Takes the frame apart up to its payload; checks in the order of the fields.
int32_t parse_answer(std::span<const uint8_t> frame, std::span<const uint8_t>& payload) {
  ByteReader r(frame);
  uint8_t header = 0;
  uint32_t length = 0;
  uint32_t command = 0;
  std::span<const uint8_t> status;
  if (frame.size() < kLeastAnswer || !r.u8(header) || header != kFrameHeader) return TQ_FAILED;
  if (!r.number(2, length) || length != frame.size()) return TQ_FAILED;
  if (!r.number(2, command) || command != kCommand || !r.take(kStatusBytes, status)) return TQ_FAILED;
  if (status[0] != 0 || status[1] != 0 || status[2] != 0) return status_code(status);
  uint8_t type = 0;
  uint32_t parameter = 0;
  if (!r.number(2, parameter) || parameter < kLeastAnswerParameter) return TQ_FAILED;
  if (!r.u8(type) || type != kAnswerType) return TQ_FAILED;
  if (low_byte_sum(frame.subspan(1, frame.size() - 2)) != frame.back()) return TQ_FAILED;
  return r.take(r.size() - 1, payload) && payload.size() == kBlockLength ? TQ_OK : TQ_FAILED;
}

int32_t decrypt_location(const ScpContext& context, std::span<const uint8_t> payload, uint32_t& out) {
  Secret<kKeyLength> key;
  Secret<kBlockLength> plain;
  scp_getPublicKey(context.envIdCode, key.data());
  const int32_t len = scp_sm4Decrypt(payload.data(), kBlockLength, key.data(), kModeCbc, plain.data());
  if (len < 0) return len;
  if (len == 0) return TQ_FAILED;
  const auto content = plain.bytes().first(static_cast<size_t>(len));
  if (low_byte_sum(content.first(content.size() - 1)) != content.back()) return TQ_FAILED;
  out = content[0];
  return TQ_OK;
}

int32_t analyse_answer(const ScpContext& context, std::span<const uint8_t> frame, uint32_t& out) {
  std::span<const uint8_t> payload;
  if (int32_t rc = parse_answer(frame, payload); rc < 0) return rc;
  return decrypt_location(context, payload, out);
}

}  // namespace
}  // namespace tq

extern "C" {

int32_t scp_appid_check(const char* text) {
  const size_t len = text == nullptr ? 0 : std::strlen(text);
  return len == TQ_SCP_APPID_LENGTH || len == tq::kShortAppidLength ? TQ_OK : TQ_FAILED;
}

int32_t scp_manufacturers_check(const char* text) {
  return tq::check_name(text);
}

int32_t scp_model_check(const char* text) {
  return tq::check_name(text);
}

int32_t scp_init(ScpContext* context, const char* appid, int32_t envIdCode, uint32_t logLevel, uint32_t type,
                 const char* manufacturer, const char* model, const char* host, uint32_t port) {
  using namespace tq;
  if (context == nullptr) return TQ_MISSING_CALL;
  context->initialised = 0;
  context->lastError = TQ_OK;
  if (scp_appid_check(appid) != TQ_OK) return record(*context, TQ_BAD_APPID);
  const bool in_range = scp_manufacturers_check(manufacturer) == TQ_OK && scp_model_check(model) == TQ_OK &&
                        is_environment(envIdCode) && logLevel <= kMaxLogLevel && port <= kMaxPort;
  if (!in_range) return record(*context, TQ_OUT_OF_RANGE);

  store_appid(context->appid, appid);
  store_text(context->manufacturer, manufacturer);
  store_text(context->model, model);
  store_text(context->host, host == nullptr ? "" : host);
  context->port = port;
  context->envIdCode = envIdCode;
  context->logLevel = logLevel;
  context->type = type;
  context->initialised = 1;
  return record(*context, TQ_OK);
}

int32_t scp_register_GT_callback(ScpContext* context, scp_time_source timeSource) {
  if (context == nullptr) return TQ_MISSING_CALL;
  context->timeSource = timeSource;
  context->timeSourceSet = timeSource == nullptr ? 0 : 1;
  return timeSource == nullptr ? tq::record(*context, TQ_OUT_OF_RANGE) : TQ_OK;
}

int32_t scp_authentication(const ScpContext* context, uint32_t* result) {
  using namespace tq;
  if (context == nullptr || result == nullptr) return TQ_MISSING_CALL;
  if (context->initialised != 1 || context->timeSourceSet != 1) {
    return context->lastError == TQ_OK ? TQ_MISSING_CALL : context->lastError;
  }
  // The clock belongs to the application, which may begin another request from inside it.
  ScpContext own = *context;
  const WipeOnExit wipe_own(own);
  ScratchBuffer buffer(kExchangeRoom);
  const int32_t request_len = buffer ? build_request(own, buffer.bytes()) : int32_t{TQ_FAILED};
  if (request_len < 0) return TQ_REQUEST_NOT_BUILT;
  const auto request = buffer.bytes().first(static_cast<size_t>(request_len));
  const int32_t answer_len = exchange_by_https(own, request, buffer.bytes());
  if (answer_len < 0) return TQ_EXCHANGE_FAILED;
  const int32_t rc = analyse_answer(own, buffer.bytes().first(static_cast<size_t>(answer_len)), *result);
  return rc == TQ_FAILED ? TQ_RESPONSE_MALFORMED : rc;
}

// Nothing in the library calls these.

int32_t scp_input_9300_group(const ScpContext* context, uint8_t* out, uint32_t capacity) {
  if (context == nullptr || out == nullptr || context->timeSource == nullptr) return TQ_FAILED;
  return tq::build_request(*context, {out, capacity});
}

int32_t scp_output_9300_analysis(const ScpContext* context, const uint8_t* answer, uint32_t length,
                                 uint32_t* result) {
  if (context == nullptr || answer == nullptr || result == nullptr) return TQ_FAILED;
  return tq::analyse_answer(*context, {answer, length}, *result);
}

}  // extern "C"
