#include "probe/latency_probe.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <limits>
#include <string_view>

#include "protocol/ipv4_socket.hpp"
#include "util/clock.h"
#include "util/time_limit.hpp"

namespace {

constexpr std::string_view kGreeting = "HELLWORD";  // so spelled in the protocol
constexpr int32_t kMaxRounds = 5;
constexpr size_t kAnswerRoom = 128;

// Once more after a signal, within the time that the operation has anyway. `event` is what it waits for.
template <typename Operation>
bool succeeds(int32_t fd, short event, Operation operation) {
  const tq::SteadyLimit limit(tq::kSocketLimitMs);
  int32_t result = operation();
  while (result < 0 && errno == EINTR && tq::wait_ready(fd, event, limit)) result = operation();
  return result >= 0;
}

bool exchange(int32_t fd) {
  std::array<uint8_t, kAnswerRoom> answer{};
  const auto send_greeting = [&] {
    return checkTools_socket_send(fd, kGreeting.data(), uint32_t{kGreeting.size()});
  };
  const auto receive_answer = [&] {
    return checkTools_socket_recv(fd, answer.data(), uint32_t{answer.size()});
  };
  return succeeds(fd, POLLOUT, send_greeting) && succeeds(fd, POLLIN, receive_answer);
}

}  // namespace

extern "C" {

int32_t tq_check_socket_info(int32_t count, const char* host, uint32_t port) {
  const int32_t fd = checkTools_socket_connect(host, port);
  if (fd == tq::kNotConnected) return TQ_PROBE_CONNECT_FAILED;
  if (fd < 0) return TQ_PROBE_FAILED;
  const tq::OwnedSocket socket(fd);
  const int32_t num_rounds = count >= 1 && count <= kMaxRounds ? count : kMaxRounds;
  int64_t total_ms = 0;
  for (int32_t round = 0; round < num_rounds; ++round) {
    const int64_t sent_at = getNowTimestamp();
    if (!exchange(fd)) return TQ_PROBE_FAILED;
    total_ms += getNowTimestamp() - sent_at;
  }
  // A clock that is set back meanwhile must not make a code of the average.
  return static_cast<int32_t>(
      std::clamp<int64_t>(total_ms / num_rounds, 0, std::numeric_limits<int32_t>::max()));
}

int32_t checkTools_socket_connect(const char* host, uint32_t port) {
  return tq::connect_ipv4(host, static_cast<uint16_t>(port & 0xFFFF));
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
