// SHA-256 (FIPS 180-4). A hash may be copied to continue a message in two ways; it wipes itself.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace tq {

class Sha256 {
 public:
  static constexpr size_t kBlockLen = 64;
  static constexpr size_t kDigestLen = 32;

  Sha256() { reset(); }
  ~Sha256();
  Sha256(const Sha256&) = default;
  Sha256& operator=(const Sha256&) = default;

  // Absorbs more of the message, in pieces of any length, together below 2^61 bytes.
  void update(std::span<const uint8_t> data);

  // Writes the digest; the hash is as new afterwards.
  void finish(std::span<uint8_t, kDigestLen> digest);

  // The same after `tail.first(len)`, where `len` (at most tail.size()) is secret: neither time nor the
  // addresses touched depend on it, nor on any byte of `tail`. All of `tail` is read.
  void finish_hiding_length(std::span<const uint8_t> tail, size_t len, std::span<uint8_t, kDigestLen> digest);

 private:
  void reset();
  void output(std::span<uint8_t, kDigestLen> digest);

  std::array<uint32_t, 8> state_;
  std::array<uint8_t, kBlockLen> buffer_;  // the block being filled
  uint64_t total_len_;                     // bytes so far
};

}  // namespace tq
