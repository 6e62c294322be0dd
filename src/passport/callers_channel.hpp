// The secure channel for callers of the exported functions, who hold two keys and a counter themselves.
#pragma once

#include <algorithm>
#include <cstdint>

#include "passport/secure_channel.hpp"
#include "passport/three_des.hpp"

namespace tq {

// A channel with the caller's keys and counter, which gets its new place when the scope ends.
class CallersChannel {
 public:
  CallersChannel(const uint8_t* ksenc, const uint8_t* ksmac, uint8_t* ssc) : ssc_(ssc) {
    SessionKeys keys;
    std::copy_n(ksenc, kTwoKeyLen, keys.enc.data());
    std::copy_n(ksmac, kTwoKeyLen, keys.mac.data());
    channel.start(keys, {ssc, kDesBlockLen});
  }
  ~CallersChannel() { std::copy_n(channel.counter().data(), kDesBlockLen, ssc_); }
  CallersChannel(const CallersChannel&) = delete;
  CallersChannel& operator=(const CallersChannel&) = delete;

  SecureChannel channel;

 private:
  uint8_t* ssc_;
};

}  // namespace tq
