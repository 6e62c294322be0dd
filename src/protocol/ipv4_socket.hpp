// Finding a server that the application names, and connecting to it over TCP and IPv4.
#pragma once

#include <netinet/in.h>

#include <cstdint>

#include "util/time_limit.hpp"

namespace tq {

inline constexpr int64_t kSocketLimitMs = 5000;  // for each operation

// Closes what it owns.
class OwnedSocket {
 public:
  explicit OwnedSocket(int fd) : fd_(fd) {}
  ~OwnedSocket();
  OwnedSocket(const OwnedSocket&) = delete;
  OwnedSocket& operator=(const OwnedSocket&) = delete;

  int fd() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }

 private:
  int fd_;
};

// The first IPv4 address of a name or of a dotted address. False when there is none. Blocks as long as the
// system's resolver does.
[[nodiscard]] bool resolve_ipv4(const char* host, uint16_t port, sockaddr_in& out);

enum : int {
  kNoSocket = -1,     // no such name, or no socket
  kNotConnected = -2  // the server did not accept
};

// A blocking socket that is connected to the server and whose operations, connecting included, take
// kSocketLimitMs at most; the caller closes it. Otherwise kNoSocket or kNotConnected. Connecting ends no
// later than `limit`.
[[nodiscard]] int connect_ipv4(const char* host, uint16_t port,
                               const SteadyLimit& limit = SteadyLimit(INT64_MAX));

// Sleeps until the socket is ready for one of the events of poll(2). False when the limit has passed first.
[[nodiscard]] bool wait_ready(int fd, short events, const SteadyLimit& limit);

}  // namespace tq
