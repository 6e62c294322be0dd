#include "location/https_exchange.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <limits>
#include <span>
#include <string_view>

#include "location/http_response.hpp"
#include "location/scp_json.h"
#include "location/session_id.hpp"
#include "net/ipv4.hpp"
#include "tls/ssl.h"
#include "util/base64.h"
#include "util/diagnostics.h"
#include "util/secret.hpp"

namespace tq {
namespace {

constexpr int64_t kExchangeLimitMs = 30'000;
constexpr uint32_t kLongestRequest = 1 << 20;
constexpr char kPath[] = "/orvoCloud/nfc/getPlace";
constexpr size_t kHttpHeaderRoom = 256;
constexpr uint32_t kLogHex = 2;

// Nothing here needs a destructor: the thread may be on its way out.
constinit thread_local SessionIdStore t_session_id{};

// 1.7 times the request and what goes around it, as Base64 and JSON need it.
constexpr size_t room_for(uint32_t request_len, size_t around) {
  return size_t{17} * request_len / 10 + around;
}
constexpr size_t text_room(uint32_t request_len) {
  return room_for(request_len, 32);
}
constexpr size_t body_room(uint32_t request_len) {
  return room_for(request_len, 256);
}

char* chars(ScratchBuffer& buffer) {
  return reinterpret_cast<char*>(buffer.data());
}

// A context, a connection on it and the socket below, all released together.
class TlsConnection {
 public:
  TlsConnection(const char* host, uint32_t port, const net::Deadline& limit) : ctx_(make_context()) {
    if (ctx_ == nullptr) return;
    const net::Connected connected = net::connect_to(host, static_cast<uint16_t>(port), limit, socket_);
    if (connected == net::Connected::kYes) ssl_ = SSL_new(ctx_);
  }
  ~TlsConnection() {
    if (ssl_ != nullptr) SSL_free(ssl_);
    if (ctx_ != nullptr) SSL_CTX_free(ctx_);
  }
  TlsConnection(const TlsConnection&) = delete;
  TlsConnection& operator=(const TlsConnection&) = delete;

  [[nodiscard]] bool shake_hands(const char* host, const net::Deadline& limit) {
    const int64_t left_ms = limit.remaining_ms();
    if (ssl_ == nullptr || left_ms <= 0) return false;
    SSL_set_time_limit(ssl_, left_ms);
    SSL_set_tlsext_host_name(ssl_, host);  // a name that cannot be sent is left out
    return SSL_set_fd(ssl_, socket_.fd()) == 1 && SSL_connect(ssl_) >= 1;
  }

  [[nodiscard]] bool write_all(std::string_view text) {
    while (!text.empty()) {
      const int written = SSL_write(ssl_, text.data(), static_cast<int>(text.size()));
      if (written <= 0) return false;
      text.remove_prefix(static_cast<size_t>(written));
    }
    return true;
  }

  // Bytes read, 0 or less at the end or on an error.
  int read(std::span<uint8_t> out) { return SSL_read(ssl_, out.data(), static_cast<int>(out.size())); }

  void shut_down() { SSL_shutdown(ssl_); }

 private:
  static SSL_CTX* make_context() {
    SSL_library_init();
    return SSL_CTX_new(SSLv23_client_method());
  }

  SSL_CTX* ctx_;
  net::Descriptor socket_;
  SSL* ssl_ = nullptr;
};

// Formats into a zeroed buffer; false when the text does not fit with its NUL.
__attribute__((format(printf, 2, 3))) bool format_text(ScratchBuffer& out, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int len = std::vsnprintf(chars(out), out.size(), format, args);
  va_end(args);
  return len >= 0 && static_cast<size_t>(len) < out.size();
}

// The JSON body around a request. The session id of the last answer is forgotten first, so it always goes out
// empty: the server wants it so.
bool format_body(std::span<const uint8_t> request, ScratchBuffer& out) {
  const auto len = static_cast<uint32_t>(request.size());
  ScratchBuffer text(text_room(len));
  if (!text || !out) return false;
  scpBASE64encode(request.data(), static_cast<int32_t>(len), chars(text), static_cast<int32_t>(text.size()));
  t_session_id.fill('\0');
  return format_text(out, "{\"data\":\"%s\",\"sessionId\":\"%s\"}", chars(text), t_session_id.data());
}

bool format_post(const ScpContext& context, const char* body, ScratchBuffer& out) {
  return out &&
         format_text(out,
                     "POST %s HTTP/1.1\r\nHOST: %s:%d\r\nAccept: */*\r\nContent-Type:application/json\r\n"
                     "Content-Length: %d\r\n\r\n%s",
                     kPath, context.host, static_cast<int>(context.port), static_cast<int>(std::strlen(body)),
                     body);
}

// One connection for one request and its response.
bool fetch(const ScpContext& context, const char* body, ResponseText& response) {
  const auto limit = net::Deadline::in(kExchangeLimitMs);
  ScratchBuffer post(std::strlen(body) + kHttpHeaderRoom);
  if (!format_post(context, body, post)) return false;
  TlsConnection connection(context.host, context.port, limit);
  if (!connection.shake_hands(context.host, limit) || !connection.write_all(chars(post))) return false;
  bool first = true;
  while (!response.complete()) {
    const std::span<uint8_t> room = response.room();
    if (room.empty()) return false;
    const int num_read = connection.read(room);
    if (num_read <= 0) {
      if (first) return false;
      break;
    }
    response.add(static_cast<size_t>(num_read));
    first = false;
  }
  connection.shut_down();
  return true;
}

// Takes the members of a response's body; the session id is kept.
bool read_members(const char* body, ScratchBuffer& value) {
  if (scp_json_check(body) != TQ_OK || !value) return false;
  if (scp_json_get_value(body, "sessionId", chars(value)) != TQ_OK) return false;
  const std::string_view session_id = chars(value);
  if (session_id.size() >= t_session_id.size()) return false;
  SessionIdStore kept{};
  std::copy(session_id.begin(), session_id.end(), kept.begin());
  if (scp_json_get_value(body, "data", chars(value)) != TQ_OK) return false;
  t_session_id = kept;
  return true;
}

int32_t exchange(const ScpContext& context, std::span<const uint8_t> request, std::span<uint8_t> answer) {
  const size_t num_body_bytes = body_room(static_cast<uint32_t>(request.size()));
  ScratchBuffer body(num_body_bytes + 1);  // of the request, then of the response; with a NUL
  ScratchBuffer data(num_body_bytes + 1);
  ResponseText response;
  if (!format_body(request, body) || !fetch(context, chars(body), response)) return TQ_FAILED;
  wipe(body.bytes());
  const std::span<char> room(chars(body), num_body_bytes);
  if (decode_chunked_body(response.text(), room) < 0 || !read_members(chars(body), data)) return TQ_FAILED;
  std::fill(answer.begin(), answer.end(), uint8_t{0});
  const std::string_view text = chars(data);
  const auto capacity =
      static_cast<int32_t>(std::min<size_t>(answer.size(), std::numeric_limits<int32_t>::max()));
  return scpBASE64decode(text.data(), static_cast<int32_t>(text.size()), answer.data(), capacity);
}

}  // namespace

SessionIdStore& session_id_store() {
  return t_session_id;
}

}  // namespace tq

extern "C" int32_t scp_socket_send_and_recv(const ScpContext* context, const uint8_t* request,
                                            uint32_t requestLength, uint8_t* answer, uint32_t capacity) {
  using namespace tq;
  if (context == nullptr || request == nullptr || answer == nullptr || requestLength > kLongestRequest) {
    return TQ_FAILED;
  }
  const bool dumps = context->logLevel == kLogHex;
  if (dumps) scp_print_hex("Send SR: ", request, requestLength);
  const int32_t len = exchange(*context, {request, requestLength}, {answer, capacity});
  if (dumps && len >= 0) scp_print_hex("Recv SR: ", answer, static_cast<uint32_t>(len));
  return len;
}
