#include "tls/socket_channel.hpp"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>

#include "net/wait.hpp"

namespace tq::tls {

namespace {

// The end of a wait that starts now, by the socket's own time-out. A time-out of zero is none.
net::Deadline own_deadline(int fd, int timeout_option) {
  timeval timeout{};
  socklen_t size = sizeof timeout;
  if (getsockopt(fd, SOL_SOCKET, timeout_option, &timeout, &size) != 0) return net::Deadline::never();
  const int64_t ms = int64_t{timeout.tv_sec} * 1000 + (int64_t{timeout.tv_usec} + 999) / 1000;
  return ms == 0 ? net::Deadline::never() : net::Deadline::in(ms);
}

bool would_wait() {
  return errno == EAGAIN || errno == EWOULDBLOCK;
}

}  // namespace

void SocketChannel::set_time_limit(int64_t limit_ms) {
  deadline_ = limit_ms < 0 ? net::Deadline::never() : net::Deadline::in(limit_ms);
}

void SocketChannel::hurry(int64_t limit_ms) {
  deadline_ = deadline_.or_sooner(net::Deadline::in(limit_ms));
}

bool SocketChannel::wait(short events, int timeout_option) const {
  return net::wait_ready(fd_, events, deadline_.or_sooner(own_deadline(fd_, timeout_option)));
}

ptrdiff_t SocketChannel::read(std::span<uint8_t> out) {
  for (;;) {
    if (deadline_.passed()) return -1;  // a peer that always has one more byte does not outrun the limit
    const ssize_t n = recv(fd_, out.data(), out.size(), MSG_DONTWAIT);
    if (n >= 0) return n;
    if (errno == EINTR) continue;
    if (!would_wait() || !wait(POLLIN, SO_RCVTIMEO)) return -1;
  }
}

bool SocketChannel::write(std::span<const uint8_t> bytes) {
  while (!bytes.empty()) {
    if (deadline_.passed()) return false;
    const ssize_t n = send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n >= 0) {
      bytes = bytes.subspan(static_cast<size_t>(n));
    } else if (errno != EINTR) {
      if (!would_wait() || !wait(POLLOUT, SO_SNDTIMEO)) return false;
    }
  }
  return true;
}

void SocketChannel::write_without_waiting(std::span<const uint8_t> bytes) {
  while (!bytes.empty()) {
    const ssize_t n = send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    bytes = bytes.subspan(static_cast<size_t>(n));
  }
}

}  // namespace tq::tls
