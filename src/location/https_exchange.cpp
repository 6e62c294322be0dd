#include "location/https_exchange.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <optional>
#include <span>
#include <string_view>

#include "location/http_response.hpp"
#include "location/https_exchange.hpp"
#include "net/ipv4.hpp"
#include "protocol/json_scan.hpp"
#include "tls/ssl.h"
#include "util/base64.h"
#include "util/byte_cursor.hpp"
#include "util/diagnostics.hpp"
#include "util/secret.hpp"

namespace tq {
namespace {

constexpr int64_t kExchangeLimitMs = 30'000;
constexpr size_t kLongestRequest = 1 << 20;
constexpr std::string_view kPath = "/orvoCloud/nfc/getPlace";
constexpr size_t kHttpHeaderRoom = 256;
constexpr size_t kMaxIdLen = 63;  // of an answer's sessionId
constexpr uint32_t kLogHex = 2;

// 1.7 times the request and what goes around it, as Base64 and JSON need it.
constexpr size_t room_for(size_t request_len, size_t around) {
  return 17 * request_len / 10 + around;
}
constexpr size_t text_room(size_t request_len) {
  return room_for(request_len, 32);
}
constexpr size_t body_room(size_t request_len) {
  return room_for(request_len, 256);
}

std::span<const uint8_t> as_bytes(std::string_view text) {
  return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
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

  // SSL_write takes all or fails.
  [[nodiscard]] bool write_all(std::span<const uint8_t> bytes) {
    const int len = static_cast<int>(bytes.size());
    return SSL_write(ssl_, bytes.data(), len) == len;
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

void put(ByteWriter& w, std::string_view text) {
  w.bytes(as_bytes(text));
}

void put(ByteWriter& w, int number) {
  std::array<char, 12> digits;
  const char* const end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
  put(w, {digits.data(), static_cast<size_t>(end - digits.data())});
}

// The JSON body around a request. What the last answer said is forgotten first, so the member sessionId
// always goes out empty: the server wants it so.
[[nodiscard]] bool write_body(ByteWriter& w, std::span<const uint8_t> request) {
  ScratchBuffer text(text_room(request.size()));
  if (!text) return false;
  const int32_t text_len = scpBASE64encode(request.data(), static_cast<int32_t>(request.size()), chars(text),
                                           static_cast<int32_t>(text.size()));
  put(w, R"({"data":")");
  put(w, {chars(text), static_cast<size_t>(text_len)});
  put(w, R"(","sessionId":""})");
  return w.ok();
}

[[nodiscard]] bool write_post(ByteWriter& w, const ScpContext& context, std::span<const uint8_t> body) {
  put(w, "POST ");
  put(w, kPath);
  put(w, " HTTP/1.1\r\nHOST: ");
  put(w, context.host);
  put(w, ":");
  put(w, static_cast<int>(context.port));
  put(w, "\r\nAccept: */*\r\nContent-Type:application/json\r\nContent-Length: ");
  put(w, static_cast<int>(body.size()));
  put(w, "\r\n\r\n");
  w.bytes(body);
  return w.ok();
}

// One connection for one request and its response.
bool fetch(const ScpContext& context, std::span<const uint8_t> request, ResponseText& response) {
  const auto limit = net::Deadline::in(kExchangeLimitMs);
  ScratchBuffer body(body_room(request.size()));
  ScratchBuffer post(body.size() + kHttpHeaderRoom);
  ByteWriter body_text(body.bytes());
  ByteWriter post_text(post.bytes());
  if (!write_body(body_text, request) || !write_post(post_text, context, body_text.written())) return false;
  TlsConnection connection(context.host, context.port, limit);
  if (!connection.shake_hands(context.host, limit) || !connection.write_all(post_text.written()))
    return false;
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

// The data of a response's body, which has an id, too.
std::optional<std::string_view> read_members(std::string_view body) {
  if (!is_braced(body)) return std::nullopt;
  const auto id = find_json_value(body, "sessionId", JsonValue::kText);
  const auto data = find_json_value(body, "data", JsonValue::kText);
  if (!id || !data || id->size() > kMaxIdLen) return std::nullopt;
  return data;
}

int32_t exchange(const ScpContext& context, std::span<const uint8_t> request, std::span<uint8_t> answer) {
  ResponseText response;
  if (!fetch(context, request, response)) return TQ_FAILED;
  const size_t room = body_room(request.size());
  ScratchBuffer body(room);
  if (!body) return TQ_FAILED;
  const int32_t body_len = decode_chunked_body(response.text(), {chars(body), room});
  if (body_len < 0) return TQ_FAILED;
  const auto data = read_members({chars(body), static_cast<size_t>(body_len)});
  if (!data) return TQ_FAILED;
  // Where a group of Base64 is cut short, the decoder goes by the NUL behind it.
  chars(body)[data->data() + data->size() - chars(body)] = '\0';
  std::fill(answer.begin(), answer.end(), uint8_t{0});
  const auto capacity =
      static_cast<int32_t>(std::min<size_t>(answer.size(), std::numeric_limits<int32_t>::max()));
  return scpBASE64decode(data->data(), static_cast<int32_t>(data->size()), answer.data(), capacity);
}

}  // namespace

int32_t exchange_by_https(const ScpContext& context, std::span<const uint8_t> request,
                          std::span<uint8_t> answer) {
  if (request.size() > kLongestRequest) return TQ_FAILED;
  const bool dumps = context.logLevel == kLogHex;
  if (dumps) dump(Dump::kRequest, request);
  const int32_t len = exchange(context, request, answer);
  if (dumps && len >= 0) dump(Dump::kResponse, answer.first(static_cast<size_t>(len)));
  return len;
}

}  // namespace tq

extern "C" int32_t scp_socket_send_and_recv(const ScpContext* context, const uint8_t* request,
                                            uint32_t requestLength, uint8_t* answer, uint32_t capacity) {
  if (context == nullptr || request == nullptr || answer == nullptr) return TQ_FAILED;
  return tq::exchange_by_https(*context, {request, requestLength}, {answer, capacity});
}
