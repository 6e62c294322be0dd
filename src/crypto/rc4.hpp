// RC4 (as in RFC 6229), for old cipher suites only: its key stream is biased. Its look-ups depend on the key,
// so a program that shares the cache may learn about it. It wipes itself.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace tq {

class Rc4 {
 public:
  // A key of 1 to 256 bytes.
  explicit Rc4(std::span<const uint8_t> key);
  ~Rc4();
  Rc4(const Rc4&) = delete;
  Rc4& operator=(const Rc4&) = delete;

  // Encrypts or decrypts: the key stream goes on from call to call. `out` has the length of `in` at least and
  // may be `in` itself, but not overlap it otherwise.
  void apply(std::span<const uint8_t> in, std::span<uint8_t> out);

 private:
  std::array<uint8_t, 256> s_;
  uint8_t i_ = 0;
  uint8_t j_ = 0;
};

}  // namespace tq
