// Random bytes of the system's random device.
#pragma once

#include "tls/environment.hpp"

namespace tq::tls {

class RandomDevice final : public RandomSource {
 public:
  explicit RandomDevice(const char* path = "/dev/urandom") : path_(path) {}

  // Fails when the device cannot be opened, or gives an error, its end, or fewer bytes than asked for.
  [[nodiscard]] bool fill(std::span<uint8_t> out) override;

 private:
  const char* path_;
};

}  // namespace tq::tls
