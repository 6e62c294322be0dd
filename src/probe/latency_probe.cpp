#include "probe/latency_probe.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <limits>
#include <string_view>

#include "net/ipv4.hpp"
#include "net/wait.hpp"
#include "util/clock.h"

namespace {

using tq::net::Connected;
using tq::net::Deadline;
using tq::net::Descriptor;

constexpr std::string_view kGreeting = "HELLWORD";  // so spelled in the protocol
constexpr int32_t kMaxRounds = 5;
constexpr size_t kAnswerRoom = 128;
enum : int32_t { kNoSocket = -1, kNotConnected = -2 };

// Once more when there is something to do, within the time that one operation has.
template <typename Operation>
bool succeeds(int fd, short event, Operation operation) {
  const Deadline limit = Deadline::in(tq::net::kSocketLimitMs);
  ssize_t result = operation();
  while (result < 0 && (errno == EINTR || errno == EAGAIN) && tq::net::wait_ready(fd, event, limit)) {
    result = operation();
  }
  return result >= 0;
}

// The low 16 bits of the port count.
Connected connect_probe(const char* host, uint32_t port, Descriptor& out) {
  return tq::net::connect_to(host, static_cast<uint16_t>(port & 0xFFFF), Deadline::never(), out);
}

bool exchange(int fd) {
  std::array<uint8_t, kAnswerRoom> answer{};
  const auto send_greeting = [&] { return send(fd, kGreeting.data(), kGreeting.size(), MSG_NOSIGNAL); };
  const auto receive_answer = [&] { return recv(fd, answer.data(), answer.size(), 0); };
  return succeeds(fd, POLLOUT, send_greeting) && succeeds(fd, POLLIN, receive_answer);
}

}  // namespace

extern "C" {

int32_t tq_check_socket_info(int32_t count, const char* host, uint32_t port) {
  Descriptor socket;
  const Connected connected = connect_probe(host, port, socket);
  if (connected != Connected::kYes) {
    return connected == Connected::kNo ? TQ_PROBE_CONNECT_FAILED : TQ_PROBE_FAILED;
  }
  const int32_t num_rounds = count >= 1 && count <= kMaxRounds ? count : kMaxRounds;
  int64_t total_ms = 0;
  for (int32_t round = 0; round < num_rounds; ++round) {
    const int64_t sent_at = getNowTimestamp();
    if (!exchange(socket.fd())) return TQ_PROBE_FAILED;
    total_ms += getNowTimestamp() - sent_at;
  }
  // A clock that is set back meanwhile must not make a code of the average.
  return static_cast<int32_t>(
      std::clamp<int64_t>(total_ms / num_rounds, 0, std::numeric_limits<int32_t>::max()));
}

// Nothing in the library calls these.

int32_t checkTools_socket_connect(const char* host, uint32_t port) {
  Descriptor socket;
  switch (connect_probe(host, port, socket)) {
    case Connected::kNoSocket:
      return kNoSocket;
    case Connected::kNo:
      return kNotConnected;
    case Connected::kYes:
      break;
  }
  // Its user expects calls that wait.
  if (fcntl(socket.fd(), F_SETFL, fcntl(socket.fd(), F_GETFL) & ~O_NONBLOCK) != 0) return kNoSocket;
  return socket.release();
}

int32_t checkTools_socket_send(int32_t fd, const void* buffer, uint32_t length) {
  return static_cast<int32_t>(send(fd, buffer, length, MSG_NOSIGNAL));
}

int32_t checkTools_socket_recv(int32_t fd, void* buffer, uint32_t length) {
  return static_cast<int32_t>(recv(fd, buffer, length, 0));
}

void checkTools_socket_close(int32_t fd) {
  close(fd);
}

}  // extern "C"
