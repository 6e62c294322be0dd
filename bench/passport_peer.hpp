// A passport chip that takes as little time as it can: Basic Access Control, secure messaging with OpenSSL's
// ciphers, and the files of a recording. It checks every MAC. Its own random numbers stand still, and its
// answer to INTERNAL AUTHENTICATE is 128 bytes but no signature.
#pragma once

#include <array>
#include <span>

#include "openssl_messaging.hpp"
#include "recording.hpp"

class PassportPeer {
 public:
  explicit PassportPeer(const Recording::Passport& passport);

  // The answer to a command, with its status; borrowed until the next. Ends the program at a command that is
  // not as it should be.
  std::span<const uint8_t> respond(std::span<const uint8_t> command);

 private:
  using Key = std::array<uint8_t, 16>;

  size_t authenticate(std::span<const uint8_t> command);
  size_t respond_protected(std::span<const uint8_t> command);

  const Recording::Passport& passport_;
  Key document_enc_{};
  Key document_mac_{};
  Key session_enc_{};
  Key session_mac_{};
  OpenSslMessaging document_{document_enc_.data(), document_mac_.data()};
  OpenSslMessaging session_{session_enc_.data(), session_mac_.data()};
  std::array<uint8_t, 8> ssc_{};
  uint16_t selected_ = 0;
  std::array<uint8_t, 300> answer_{};
};
