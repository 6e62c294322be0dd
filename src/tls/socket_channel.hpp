// A connected stream socket as a ByteChannel, with time limits.
#pragma once

#include <cstdint>

#include "net/deadline.hpp"
#include "tls/environment.hpp"

namespace tq::tls {

// Every wait is bounded by the socket's own SO_RCVTIMEO or SO_SNDTIMEO and by an overall limit, both by the
// monotonic clock. The socket may be blocking or not; it is borrowed and never closed here.
class SocketChannel final : public ByteChannel {
 public:
  void set_fd(int fd) { fd_ = fd; }

  // Everything from now on; a negative number lifts the limit.
  void set_time_limit(int64_t limit_ms);

  [[nodiscard]] ptrdiff_t read(std::span<uint8_t> out) override;
  [[nodiscard]] bool write(std::span<const uint8_t> bytes) override;
  void write_without_waiting(std::span<const uint8_t> bytes) override;
  void hurry(int64_t limit_ms) override;

 private:
  bool wait(short events, int timeout_option) const;

  int fd_ = -1;
  net::Deadline deadline_ = net::Deadline::never();
};

}  // namespace tq::tls
