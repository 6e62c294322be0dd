#include "protocol/tcp_transport.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <span>

#include "core/session/read_session.hpp"
#include "protocol/ipv4_socket.hpp"
#include "util/byte_cursor.hpp"
#include "util/diagnostics.h"
#include "util/no_destroy.hpp"
#include "util/time_limit.hpp"

namespace {

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
  int32_t socketFd = -1;
  int wake_read = -1;  // becomes readable when the connection is aborted
  int wake_write = -1;
  bool socketConnected = false;
  std::atomic<bool> socketAbort{false};
  int users = 0;  // threads that work with the descriptors now
  bool release_when_unused = false;
};

Connection& connection() {
  static tq::NoDestroy<Connection> the_connection;
  return the_connection.get();
}

void close_and_forget(int& fd) {
  if (fd >= 0) close(fd);
  fd = -1;
}

// With the mutex held.
void release_descriptors(Connection& c) {
  close_and_forget(c.socketFd);
  close_and_forget(c.wake_read);
  close_and_forget(c.wake_write);
  c.release_when_unused = false;
}

// One thread's use of the connection, for sending and receiving or for connecting.
class ConnectionUse {
 public:
  enum class For { kConnecting, kExchange };

  explicit ConnectionUse(For purpose) : c_(connection()) {
    const std::lock_guard lock(c_.mutex);
    if (purpose == For::kExchange && (!c_.socketConnected || c_.socketAbort)) return;
    if (purpose == For::kConnecting && c_.users > 0) return;
    if (purpose == For::kConnecting) {
      c_.socketConnected = false;
      release_descriptors(c_);
    }
    ++c_.users;
    entered_ = true;
  }
  ~ConnectionUse() {
    if (!entered_) return;
    const std::lock_guard lock(c_.mutex);
    if (--c_.users == 0 && c_.release_when_unused) release_descriptors(c_);
  }
  ConnectionUse(const ConnectionUse&) = delete;
  ConnectionUse& operator=(const ConnectionUse&) = delete;

  bool entered() const { return entered_; }
  bool aborted() const { return c_.socketAbort; }
  int fd() const { return c_.socketFd; }  // changed by the using thread only
  Connection& shared() { return c_; }

  // Sleeps until the socket is ready for `events`, the connection is aborted or the time is over.
  void wait(short events, int64_t timeout_ms) const {
    pollfd watched[] = {{c_.socketFd, events, 0}, {c_.wake_read, POLLIN, 0}};
    poll(watched, std::size(watched), static_cast<int>(timeout_ms));
  }

  // Sleeps until the connection is aborted or the time is over.
  void pause(int64_t timeout_ms) const {
    pollfd watched = {c_.wake_read, POLLIN, 0};
    poll(&watched, 1, static_cast<int>(timeout_ms));
  }

 private:
  Connection& c_;
  bool entered_ = false;
};

// Puts a new non-blocking socket in the place of the present one.
bool open_socket(Connection& c) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const std::lock_guard lock(c.mutex);
  close_and_forget(c.socketFd);
  c.socketFd = fd;
  if (fd < 0) return false;
  const int flags = fcntl(fd, F_GETFL);
  return flags != -1 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) != -1;
}

bool open_wake_pipe(Connection& c) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) return false;
  const std::lock_guard lock(c.mutex);
  c.wake_read = ends[0];
  c.wake_write = ends[1];
  c.socketAbort = tq::current_read_stopped();  // it may have been while nothing here could be aborted yet
  return true;
}

// Tries until the server accepts, the limit has passed or somebody aborts.
bool keep_connecting(ConnectionUse& use, const sockaddr_in& server, const tq::TimeLimit& limit) {
  int64_t retry_ms = kFirstRetryMs;
  while (!use.aborted()) {
    const int result = connect(use.fd(), reinterpret_cast<const sockaddr*>(&server), sizeof server);
    const int error = result == 0 ? 0 : errno;
    const int64_t left_ms = limit.remaining_ms();
    if (left_ms < 0) return false;
    if (error == 0 || error == EISCONN) return true;
    if (left_ms == 0) return false;
    if (error == EINPROGRESS || error == EALREADY || error == EINTR) {
      use.wait(POLLOUT, left_ms);
      continue;
    }
    use.pause(std::min(left_ms, retry_ms));
    retry_ms = std::min(2 * retry_ms, kLongestRetryMs);
    if (!open_socket(use.shared())) return false;
  }
  return false;
}

bool worth_another_try(ssize_t result) {
  return result < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR);
}

// Returns the bytes sent, the last result when aborted, or TQ_FAILED. A connection that is gone fails at
// once.
int32_t send_all(const ConnectionUse& use, std::span<const uint8_t> bytes) {
  const tq::TimeLimit limit(kExchangeLimitMs);
  if (!limit.clock_ok()) return TQ_FAILED;
  size_t sent = 0;
  ssize_t last = 0;
  while (!use.aborted()) {
    last = send(use.fd(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (last < 0 && !worth_another_try(last)) return TQ_FAILED;
    if (last > 0) sent += static_cast<size_t>(last);
    if (sent == bytes.size()) return static_cast<int32_t>(sent);
    const int64_t left_ms = limit.remaining_ms();
    if (left_ms <= 0) return TQ_FAILED;
    if (last <= 0) use.wait(POLLOUT, left_ms);
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
  const tq::TimeLimit limit(kExchangeLimitMs);
  if (!limit.clock_ok()) return TQ_FAILED;
  size_t num_received = 0;
  ssize_t last = 0;
  while (!use.aborted()) {
    last = recv(use.fd(), buffer.data() + num_received, buffer.size() - num_received, 0);
    const bool nothing_yet = worth_another_try(last);
    if (last > 0) num_received += static_cast<size_t>(last);
    const int64_t left_ms = limit.remaining_ms();
    if (left_ms < 0) return TQ_FAILED;
    const std::span<const uint8_t> received = buffer.first(num_received);
    if (has_length_field(received, long_form)) {
      if (!is_frame_header(received[0]) || num_received >= frame_length(received, long_form)) {
        return static_cast<int32_t>(num_received);
      }
    }
    // A frame that outgrows the buffer, and one whose sender has gone, can never become complete.
    const bool hopeless = num_received == buffer.size() || (last <= 0 && !nothing_yet);
    if (hopeless || left_ms == 0) return TQ_FAILED;
    if (nothing_yet) use.wait(POLLIN, left_ms);
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
  if (!tq::resolve_ipv4(cfg->ip, cfg->port, server) || !open_socket(c)) return TQ_FAILED;
  const tq::TimeLimit limit(kConnectLimitMs);
  if (!limit.clock_ok() || !open_wake_pipe(c)) return TQ_FAILED;
  const bool connected = keep_connecting(use, server, limit);

  const std::lock_guard lock(c.mutex);
  if (!connected || c.socketAbort) {
    c.socketAbort = true;
    if (connected) close_and_forget(c.socketFd);  // one that is not connected stays until the next connect
    close_and_forget(c.wake_read);
    close_and_forget(c.wake_write);
    return TQ_FAILED;
  }
  c.socketConnected = true;
  return c.socketFd;
}

void tq_socket_close(void) {
  Connection& c = connection();
  const std::lock_guard lock(c.mutex);
  c.socketAbort = true;
  if (c.wake_write >= 0) {
    const uint8_t wake = 1;
    [[maybe_unused]] const ssize_t written =
        write(c.wake_write, &wake, sizeof wake);  // a full pipe wakes as well
  }
  if (!c.socketConnected) return;
  c.socketConnected = false;
  if (c.users == 0) {
    release_descriptors(c);
  } else {
    c.release_when_unused = true;
  }
}

int32_t tcp_send_and_recv(const SessionConfig* cfg, const uint8_t* request, uint32_t requestLength,
                          uint8_t* response, uint32_t capacity, int32_t longForm) {
  if (cfg == nullptr || request == nullptr || response == nullptr) return TQ_EXCHANGE_FAILED;
  if (dumps_frames(*cfg)) print_hex("Send SR: ", request, requestLength);
  const ConnectionUse use(ConnectionUse::For::kExchange);
  if (!use.entered()) return TQ_EXCHANGE_FAILED;
  if (send_all(use, {request, requestLength}) < 0 || use.aborted()) return TQ_EXCHANGE_FAILED;
  std::fill_n(response, capacity, uint8_t{0});
  const int32_t num_received = receive_frame(use, {response, capacity}, longForm != TQ_SHORT_FRAME);
  if (num_received < 1) return TQ_EXCHANGE_FAILED;
  if (dumps_frames(*cfg)) print_hex("Recv SR: ", response, static_cast<uint32_t>(num_received));
  return num_received;
}

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
