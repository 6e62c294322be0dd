// HMAC (RFC 2104) over any of the hash classes: Hmac<Sha256>, Hmac<Sha1>, Hmac<Md5>. One object makes the
// MACs of any number of messages under its key; the key is worked in once. It wipes itself.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

#include "util/secret.hpp"

namespace tq {

template <class Hash>
class Hmac {
 public:
  static constexpr size_t kMacLen = Hash::kDigestLen;

  // A key of any length; one longer than a block of the hash is replaced by its digest.
  explicit Hmac(std::span<const uint8_t> key) {
    Secret<Hash::kBlockLen> block;
    if (key.size() > block.size()) {
      Hash hash;
      hash.update(key);
      hash.finish(block.bytes().template first<Hash::kDigestLen>());
    } else {
      std::copy(key.begin(), key.end(), block.data());
    }
    for (uint8_t& byte : block.bytes()) byte ^= kInnerPad;
    keyed_inner_.update(block.bytes());
    for (uint8_t& byte : block.bytes()) byte ^= kInnerPad ^ kOuterPad;
    keyed_outer_.update(block.bytes());
    inner_ = keyed_inner_;
  }
  Hmac(const Hmac&) = delete;
  Hmac& operator=(const Hmac&) = delete;

  void update(std::span<const uint8_t> data) { inner_.update(data); }

  // Writes the MAC; the next message may follow.
  void finish(std::span<uint8_t, kMacLen> mac) {
    inner_.finish(mac);
    finish_outer(mac);
  }

  // The same after `tail.first(len)`, where `len` (at most tail.size()) is secret: neither time nor the
  // addresses touched depend on it, nor on any byte of `tail`. All of `tail` is read.
  void finish_hiding_length(std::span<const uint8_t> tail, size_t len, std::span<uint8_t, kMacLen> mac) {
    inner_.finish_hiding_length(tail, len, mac);
    finish_outer(mac);
  }

 private:
  static constexpr uint8_t kInnerPad = 0x36;
  static constexpr uint8_t kOuterPad = 0x5C;

  void finish_outer(std::span<uint8_t, kMacLen> mac) {
    Hash outer = keyed_outer_;
    outer.update(mac);
    outer.finish(mac);
    inner_ = keyed_inner_;
  }

  Hash keyed_inner_;
  Hash keyed_outer_;
  Hash inner_;
};

}  // namespace tq
