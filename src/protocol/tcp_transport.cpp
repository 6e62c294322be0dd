#include "protocol/tcp_transport.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <span>
#include <utility>

#include "core/session/read_session.hpp"
#include "net/ipv4.hpp"
#include "net/wait.hpp"
#include "util/byte_cursor.hpp"
#include "util/diagnostics.hpp"
#include "util/no_destroy.hpp"

namespace {

using tq::net::Deadline;
using tq::net::Descriptor;

constexpr int64_t kConnectLimitMs = 5000;
constexpr int64_t kExchangeLimitMs = 5000;  // of sending, and of receiving
constexpr int64_t kFirstRetryMs = 5;        // pause after a refused connect, doubled up to the longest
constexpr int64_t kLongestRetryMs = 80;
constexpr uint8_t kFirstHeader = 0x70;
constexpr uint8_t kLastHeader = 0x72;

// The process-wide connection. Its descriptors are closed by the thread that uses them, or by the closing
// thread when nobody does, so a number is never used after another thread could have been given it again.
struct Connection {
  std::mutex mutex;
  Descriptor socket;
  Descriptor wake;  // becomes readable when the connection is aborted, and stays so
  bool connected = false;
  std::atomic<bool> aborted{false};
  int users = 0;  // threads that work with the descriptors now
  bool release_when_unused = false;

  // With the mutex held.
  void release_descriptors() {
    socket.reset();
    wake.reset();
    release_when_unused = false;
  }
};

Connection& connection() {
  static tq::NoDestroy<Connection> the_connection;
  return the_connection.get();
}

// One thread's use of the connection, for sending and receiving or for connecting.
class ConnectionUse {
 public:
  enum class For { kConnecting, kExchange };

  explicit ConnectionUse(For purpose) : c_(connection()) {
    const std::lock_guard lock(c_.mutex);
    if (purpose == For::kExchange && (!c_.connected || c_.aborted)) return;
    if (purpose == For::kConnecting && c_.users > 0) return;
    if (purpose == For::kConnecting) {
      c_.connected = false;
      c_.release_descriptors();
    }
    ++c_.users;
    entered_ = true;
  }
  ~ConnectionUse() {
    if (!entered_) return;
    const std::lock_guard lock(c_.mutex);
    if (--c_.users == 0 && c_.release_when_unused) c_.release_descriptors();
  }
  ConnectionUse(const ConnectionUse&) = delete;
  ConnectionUse& operator=(const ConnectionUse&) = delete;

  bool entered() const { return entered_; }
  bool aborted() const { return c_.aborted; }
  int fd() const { return c_.socket.fd(); }  // changed by the using thread only
  int wake_fd() const { return c_.wake.fd(); }
  Connection& shared() { return c_; }

  // Sleeps until the socket is ready for `events`, the connection is aborted or the time is over: the caller
  // looks which.
  void wait(short events, const Deadline& deadline) const {
    static_cast<void>(tq::net::wait_ready(fd(), events, deadline, wake_fd()));
  }

  // Sleeps until the connection is aborted or the time is over.
  void pause(const Deadline& deadline) const {
    static_cast<void>(tq::net::wait_ready(-1, 0, deadline, wake_fd()));
  }

 private:
  Connection& c_;
  bool entered_ = false;
};

// Puts a new socket in the place of the present one.
bool renew_socket(Connection& c) {
  Descriptor fresh = tq::net::open_socket();
  const std::lock_guard lock(c.mutex);
  c.socket = std::move(fresh);
  return static_cast<bool>(c.socket);
}

bool open_wake(Connection& c) {
  Descriptor fresh(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!fresh) return false;
  const std::lock_guard lock(c.mutex);
  c.wake = std::move(fresh);
  c.aborted = tq::current_read_stopped();  // it may have been while nothing here could be aborted yet
  return true;
}

// Tries until the server accepts, the limit has passed or somebody aborts.
bool keep_connecting(ConnectionUse& use, const sockaddr_in& server, const Deadline& limit) {
  int64_t retry_ms = kFirstRetryMs;
  while (!use.aborted()) {
    const bool accepted = tq::net::connect_once(use.fd(), server, limit, use.wake_fd());
    if (!limit.clock_ok()) return false;
    if (accepted) return true;
    if (limit.passed()) return false;
    use.pause(Deadline::in(std::min(limit.remaining_ms(), retry_ms)));
    retry_ms = std::min(2 * retry_ms, kLongestRetryMs);
    if (!renew_socket(use.shared())) return false;
  }
  return false;
}

bool worth_another_try(ssize_t result) {
  return result < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR);
}

// Returns the bytes sent, the last result when aborted, or TQ_FAILED. A connection that is gone fails at
// once.
int32_t send_all(const ConnectionUse& use, std::span<const uint8_t> bytes) {
  const Deadline limit = Deadline::by_both_clocks_in(kExchangeLimitMs);
  if (!limit.clock_ok()) return TQ_FAILED;
  size_t sent = 0;
  ssize_t last = 0;
  while (!use.aborted()) {
    last = send(use.fd(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (last < 0 && !worth_another_try(last)) return TQ_FAILED;
    if (last > 0) sent += static_cast<size_t>(last);
    if (sent == bytes.size()) return static_cast<int32_t>(sent);
    if (limit.passed()) return TQ_FAILED;
    if (last <= 0) use.wait(POLLOUT, limit);
  }
  return static_cast<int32_t>(last);
}

// Length of the frame that starts with these bytes, 0 while its length field is incomplete.
size_t frame_length(std::span<const uint8_t> received, bool long_form) {
  tq::ByteReader r(received);
  uint32_t length = 0;
  return r.skip(1) && r.number(long_form ? 4 : 2, length) ? length : 0;
}

bool has_length_field(std::span<const uint8_t> received, bool long_form) {
  return received.size() >= (long_form ? size_t{5} : size_t{3});
}

bool is_frame_header(uint8_t byte) {
  return byte >= kFirstHeader && byte <= kLastHeader;
}

int32_t receive_frame(const ConnectionUse& use, std::span<uint8_t> buffer, bool long_form) {
  const Deadline limit = Deadline::by_both_clocks_in(kExchangeLimitMs);
  if (!limit.clock_ok()) return TQ_FAILED;
  size_t num_received = 0;
  ssize_t last = 0;
  while (!use.aborted()) {
    last = recv(use.fd(), buffer.data() + num_received, buffer.size() - num_received, 0);
    const bool nothing_yet = worth_another_try(last);
    if (last > 0) num_received += static_cast<size_t>(last);
    if (!limit.clock_ok()) return TQ_FAILED;
    const std::span<const uint8_t> received = buffer.first(num_received);
    if (has_length_field(received, long_form)) {
      if (!is_frame_header(received[0]) || num_received >= frame_length(received, long_form)) {
        return static_cast<int32_t>(num_received);
      }
    }
    // A frame that outgrows the buffer, and one whose sender has gone, can never become complete.
    const bool hopeless = num_received == buffer.size() || (last <= 0 && !nothing_yet);
    if (hopeless || limit.passed()) return TQ_FAILED;
    if (nothing_yet) use.wait(POLLIN, limit);
  }
  return static_cast<int32_t>(last);
}

bool dumps_frames(const SessionConfig& cfg) {
  return cfg.logLevel == 2;
}

}  // namespace

extern "C" {

int32_t tq_socket_connect(const SessionConfig* cfg) {
  if (cfg == nullptr) return TQ_FAILED;
  ConnectionUse use(ConnectionUse::For::kConnecting);
  if (!use.entered()) return TQ_FAILED;
  Connection& c = use.shared();
  sockaddr_in server{};
  if (!tq::net::resolve(cfg->ip, cfg->port, server) || !renew_socket(c)) return TQ_FAILED;
  const Deadline limit = Deadline::by_both_clocks_in(kConnectLimitMs);
  if (!limit.clock_ok() || !open_wake(c)) return TQ_FAILED;
  const bool connected = keep_connecting(use, server, limit);

  const std::lock_guard lock(c.mutex);
  if (!connected || c.aborted) {
    c.aborted = true;
    if (connected) c.socket.reset();  // one that is not connected stays until the next connect
    c.wake.reset();
    return TQ_FAILED;
  }
  c.connected = true;
  return c.socket.fd();
}

void tq_socket_close(void) {
  Connection& c = connection();
  const std::lock_guard lock(c.mutex);
  c.aborted = true;
  if (c.wake) {
    const uint64_t once = 1;
    [[maybe_unused]] const ssize_t written = write(c.wake.fd(), &once, sizeof once);
  }
  if (!c.connected) return;
  c.connected = false;
  if (c.users == 0) {
    c.release_descriptors();
  } else {
    c.release_when_unused = true;
  }
}

int32_t tcp_send_and_recv(const SessionConfig* cfg, const uint8_t* request, uint32_t requestLength,
                          uint8_t* response, uint32_t capacity, int32_t longForm) {
  if (cfg == nullptr || request == nullptr || response == nullptr) return TQ_EXCHANGE_FAILED;
  if (dumps_frames(*cfg)) tq::dump(tq::Dump::kRequest, {request, requestLength});
  const ConnectionUse use(ConnectionUse::For::kExchange);
  if (!use.entered()) return TQ_EXCHANGE_FAILED;
  if (send_all(use, {request, requestLength}) < 0 || use.aborted()) return TQ_EXCHANGE_FAILED;
  std::fill_n(response, capacity, uint8_t{0});
  const int32_t num_received = receive_frame(use, {response, capacity}, longForm != TQ_SHORT_FRAME);
  if (num_received < 1) return TQ_EXCHANGE_FAILED;
  if (dumps_frames(*cfg)) tq::dump(tq::Dump::kResponse, {response, static_cast<size_t>(num_received)});
  return num_received;
}

// Nothing in the library calls these: the halves of an exchange.

int32_t tq_socket_recv(void* context, uint8_t* buffer, uint32_t capacity, int32_t longForm) {
  static_cast<void>(context);
  const ConnectionUse use(ConnectionUse::For::kExchange);
  if (!use.entered()) return 0;
  if (buffer == nullptr) return TQ_FAILED;
  return receive_frame(use, {buffer, capacity}, longForm != TQ_SHORT_FRAME);
}

int32_t tq_socket_send(void* context, const uint8_t* bytes, uint32_t length) {
  static_cast<void>(context);
  const ConnectionUse use(ConnectionUse::For::kExchange);
  if (!use.entered()) return 0;
  if (bytes == nullptr) return TQ_FAILED;
  return send_all(use, {bytes, length});
}

}  // extern "C"
