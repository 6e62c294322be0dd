// What the chip has answered, by its status word and through the secure channel.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "core/config/session_config.h"
#include "core/session/read_session.hpp"
#include "passport/secure_channel.hpp"
#include "util/secret.hpp"

namespace tq {

class ChipAnswer {
 public:
  // The documented judgement: the number of data bytes, or the code of tq_read_card_anlysis, or
  // TQ_CARD_FAILED when a good answer cannot be opened.
  int32_t code() const { return code_; }
  bool good() const { return code_ >= 0; }

  // What was said, whoever said it; 0 when nothing was.
  uint16_t status() const { return status_; }
  bool status_is(uint8_t sw1) const { return status_ >> 8 == sw1; }
  uint8_t sw2() const { return static_cast<uint8_t>(status_); }

  // Plain data: of a good answer, and of another one whose MAC holds.
  std::span<const uint8_t> data() const { return data_.bytes().first(len_); }

  // An answer to a plain command, with at most `room` bytes of data.
  static void judge(SessionConfig& cfg, std::span<const uint8_t> answer, ChipAnswer& out,
                    size_t room = kMaxCardAnswer);

  // An answer to a protected one. The counter moves with every answer of 90 00 and with every other one whose
  // MAC holds.
  static void open(SessionConfig& cfg, SecureChannel& channel, std::span<const uint8_t> answer,
                   ChipAnswer& out);

 private:
  int32_t code_ = 0;
  uint16_t status_ = 0;
  Secret<kMaxCardAnswer> data_;
  size_t len_ = 0;
};

}  // namespace tq
