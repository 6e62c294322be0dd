#include "protocol/ipv4_socket.hpp"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

namespace tq {
namespace {

bool limit_operation(int fd, int option, int64_t limit_ms) {
  const timeval limit = {static_cast<time_t>(limit_ms / 1000),
                         static_cast<suseconds_t>(limit_ms % 1000 * 1000)};
  return setsockopt(fd, SOL_SOCKET, option, &limit, sizeof limit) == 0;
}

// A connect that a signal has interrupted goes on by itself.
bool connected_meanwhile(int fd, const SteadyLimit& limit) {
  int error = 0;
  socklen_t size = sizeof error;
  return wait_ready(fd, POLLOUT, limit) && getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 &&
         error == 0;
}

// The limit on sending holds for connecting as well. A limit of zero would be none.
bool connect_within_limit(int fd, const sockaddr_in& server, int64_t limit_ms) {
  const SteadyLimit limit(limit_ms);
  if (limit_ms <= 0 || !limit_operation(fd, SO_SNDTIMEO, limit_ms)) return false;
  if (connect(fd, reinterpret_cast<const sockaddr*>(&server), sizeof server) != 0 &&
      (errno != EINTR || !connected_meanwhile(fd, limit))) {
    return false;
  }
  return limit_operation(fd, SO_SNDTIMEO, kSocketLimitMs) && limit_operation(fd, SO_RCVTIMEO, kSocketLimitMs);
}

}  // namespace

OwnedSocket::~OwnedSocket() {
  if (fd_ >= 0) close(fd_);
}

bool resolve_ipv4(const char* host, uint16_t port, sockaddr_in& out) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (host == nullptr || getaddrinfo(host, nullptr, &hints, &found) != 0) return false;
  out = *reinterpret_cast<const sockaddr_in*>(found->ai_addr);
  freeaddrinfo(found);
  out.sin_port = htons(port);
  return true;
}

bool wait_ready(int fd, short events, const SteadyLimit& limit) {
  for (;;) {
    const int64_t left_ms = limit.remaining_ms();
    if (left_ms <= 0) return false;
    pollfd watched = {fd, events, 0};
    const int num_ready = poll(&watched, 1, static_cast<int>(std::min<int64_t>(left_ms, INT_MAX)));
    if (num_ready > 0) return true;
    if (num_ready < 0 && errno != EINTR) return false;
  }
}

int connect_ipv4(const char* host, uint16_t port, const SteadyLimit& limit) {
  sockaddr_in server{};
  if (!resolve_ipv4(host, port, server)) return kNoSocket;
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return kNoSocket;
  if (connect_within_limit(fd, server, std::min(kSocketLimitMs, limit.remaining_ms()))) return fd;
  close(fd);
  return kNotConnected;
}

}  // namespace tq
