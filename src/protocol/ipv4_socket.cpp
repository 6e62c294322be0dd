#include "protocol/ipv4_socket.hpp"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>

#include "util/time_limit.hpp"

namespace tq {
namespace {

constexpr int64_t kSocketLimitMs = 5000;

bool limit_operations(int fd) {
  const timeval limit = {kSocketLimitMs / 1000, 0};
  return setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) == 0 &&
         setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) == 0;
}

// A connect that a signal has interrupted goes on by itself.
bool connected_meanwhile(int fd, const TimeLimit& limit) {
  pollfd watched = {fd, POLLOUT, 0};
  int ready = 0;
  do {
    const int64_t left_ms = limit.remaining_ms();
    if (left_ms <= 0) return false;
    ready = poll(&watched, 1, static_cast<int>(left_ms));
  } while (ready < 0 && errno == EINTR);
  int error = 0;
  socklen_t size = sizeof error;
  return ready == 1 && getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == 0;
}

bool connect_within_limit(int fd, const sockaddr_in& server) {
  const TimeLimit limit(kSocketLimitMs);
  if (connect(fd, reinterpret_cast<const sockaddr*>(&server), sizeof server) == 0) return true;
  return errno == EINTR && connected_meanwhile(fd, limit);
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

int connect_ipv4(const char* host, uint16_t port) {
  sockaddr_in server{};
  if (!resolve_ipv4(host, port, server)) return kNoSocket;
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return kNoSocket;
  if (limit_operations(fd) && connect_within_limit(fd, server)) return fd;
  close(fd);
  return kNotConnected;
}

}  // namespace tq
