#include "tls/random_device.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "util/secret.hpp"

namespace tq::tls {

namespace {

// A read of so few bytes is never cut short by the random device (random(4)), not even by a signal.
constexpr size_t kMaxReadLen = 256;

bool read_piece(int fd, std::span<uint8_t> out) {
  ssize_t n = 0;
  do {
    n = read(fd, out.data(), out.size());
  } while (n < 0 && errno == EINTR);
  return n == static_cast<ssize_t>(out.size());
}

int open_for_reading(const char* path) {
  int fd = -1;
  do {
    fd = open(path, O_RDONLY | O_CLOEXEC);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

}  // namespace

bool RandomDevice::fill(std::span<uint8_t> out) {
  const int fd = open_for_reading(path_);
  if (fd < 0) {
    wipe(out);
    return false;
  }
  bool filled = true;
  for (auto rest = out; filled && !rest.empty();) {
    const auto piece = rest.first(std::min(rest.size(), kMaxReadLen));
    filled = read_piece(fd, piece);
    rest = rest.subspan(piece.size());
  }
  close(fd);
  if (!filled) wipe(out);
  return filled;
}

}  // namespace tq::tls
