#include "util/system_random.hpp"

#include <sys/random.h>

#include <cerrno>

namespace tq {

bool system_random(std::span<uint8_t> out) {
  while (!out.empty()) {
    const ssize_t n = getrandom(out.data(), out.size(), 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    out = out.subspan(static_cast<size_t>(n));
  }
  return true;
}

}  // namespace tq
