// The owner of a file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

namespace tq::net {

// Closes it once, when it goes or is given another.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor() { reset(); }
  Descriptor(Descriptor&& other) noexcept : fd_(other.release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }

  int fd() const { return fd_; }  // -1 when there is none
  explicit operator bool() const { return fd_ >= 0; }

  void reset(int fd = -1) {
    if (const int old = std::exchange(fd_, fd); old >= 0) close(old);
  }
  // The caller closes it.
  [[nodiscard]] int release() { return std::exchange(fd_, -1); }

 private:
  int fd_ = -1;
};

}  // namespace tq::net
