#include "net/ipv4.hpp"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>

#include "net/wait.hpp"

namespace tq::net {
namespace {

bool limit_operations(int fd) {
  constexpr timeval kLimit = {kSocketLimitMs / 1000, 0};
  return setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &kLimit, sizeof kLimit) == 0 &&
         setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &kLimit, sizeof kLimit) == 0;
}

}  // namespace

bool resolve(const char* host, uint16_t port, sockaddr_in& out) {
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

Descriptor open_socket() {
  return Descriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

// A connect that a signal has interrupted goes on by itself.
bool connect_once(int fd, const sockaddr_in& server, const Deadline& deadline, int wake_fd) {
  if (connect(fd, reinterpret_cast<const sockaddr*>(&server), sizeof server) == 0) return true;
  if (errno != EINPROGRESS && errno != EINTR) return false;
  int error = 0;
  socklen_t size = sizeof error;
  return wait_ready(fd, POLLOUT, deadline, wake_fd) &&
         getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == 0;
}

Connected connect_to(const char* host, uint16_t port, const Deadline& deadline, Descriptor& out) {
  sockaddr_in server{};
  if (!resolve(host, port, server)) return Connected::kNoSocket;
  Descriptor socket = open_socket();
  if (!socket) return Connected::kNoSocket;
  const Deadline sooner = Deadline::in(kSocketLimitMs).or_sooner(deadline);
  if (sooner.passed() || !limit_operations(socket.fd()) || !connect_once(socket.fd(), server, sooner)) {
    return Connected::kNo;
  }
  out = std::move(socket);
  return Connected::kYes;
}

}  // namespace tq::net
