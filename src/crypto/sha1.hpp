// SHA-1 of crypto/sha1.h with the interface of the other hashes of TLS. It wipes itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "crypto/sha1.h"

namespace tq {

class Sha1 {
 public:
  static constexpr size_t kBlockLen = 64;
  static constexpr size_t kDigestLen = 20;

  Sha1();
  ~Sha1();
  Sha1(const Sha1&) = default;
  Sha1& operator=(const Sha1&) = default;

  // Absorbs more of the message, in pieces of any length, together below 2^61 bytes.
  void update(std::span<const uint8_t> data);

  // Writes the digest; the hash is as new afterwards.
  void finish(std::span<uint8_t, kDigestLen> digest);

  // The same after `tail.first(len)`, where `len` (at most tail.size()) is secret: neither time nor the
  // addresses touched depend on it, nor on any byte of `tail`. All of `tail` is read.
  void finish_hiding_length(std::span<const uint8_t> tail, size_t len, std::span<uint8_t, kDigestLen> digest);

 private:
  TQSHA1Context ctx_;
};

}  // namespace tq
