#include "tls/socket_channel.hpp"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <ctime>

namespace tq::tls {

namespace {

int64_t steady_ms() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

int64_t after(int64_t start_ms, int64_t duration_ms) {
  return duration_ms > INT64_MAX - start_ms ? INT64_MAX : start_ms + duration_ms;
}

// The end of a wait that starts now, by the socket's own time-out. A time-out of zero is none.
int64_t own_deadline(int fd, int timeout_option) {
  timeval timeout{};
  socklen_t size = sizeof timeout;
  if (getsockopt(fd, SOL_SOCKET, timeout_option, &timeout, &size) != 0) return INT64_MAX;
  const int64_t ms = int64_t{timeout.tv_sec} * 1000 + (int64_t{timeout.tv_usec} + 999) / 1000;
  return ms == 0 ? INT64_MAX : after(steady_ms(), ms);
}

bool would_wait() {
  return errno == EAGAIN || errno == EWOULDBLOCK;
}

}  // namespace

void SocketChannel::set_time_limit(int64_t limit_ms) {
  deadline_ms_ = limit_ms < 0 ? INT64_MAX : after(steady_ms(), limit_ms);
}

void SocketChannel::hurry(int64_t limit_ms) {
  deadline_ms_ = std::min(deadline_ms_, after(steady_ms(), limit_ms));
}

bool SocketChannel::limit_passed() const {
  return deadline_ms_ != INT64_MAX && steady_ms() >= deadline_ms_;
}

// Sleeps until the socket is ready. False when a limit has passed first.
bool SocketChannel::wait(short events, int timeout_option) const {
  const int64_t deadline_ms = std::min(deadline_ms_, own_deadline(fd_, timeout_option));
  for (;;) {
    int timeout_ms = -1;
    if (deadline_ms != INT64_MAX) {
      const int64_t left_ms = deadline_ms - steady_ms();
      if (left_ms <= 0) return false;
      timeout_ms = static_cast<int>(std::min<int64_t>(left_ms, INT_MAX));
    }
    pollfd watched = {fd_, events, 0};
    const int num_ready = poll(&watched, 1, timeout_ms);
    if (num_ready > 0) return true;
    if (num_ready < 0 && errno != EINTR) return false;
  }
}

ptrdiff_t SocketChannel::read(std::span<uint8_t> out) {
  for (;;) {
    if (limit_passed()) return -1;  // a peer that always has one more byte does not outrun the limit
    const ssize_t n = recv(fd_, out.data(), out.size(), MSG_DONTWAIT);
    if (n >= 0) return n;
    if (errno == EINTR) continue;
    if (!would_wait() || !wait(POLLIN, SO_RCVTIMEO)) return -1;
  }
}

bool SocketChannel::write(std::span<const uint8_t> bytes) {
  while (!bytes.empty()) {
    if (limit_passed()) return false;
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
