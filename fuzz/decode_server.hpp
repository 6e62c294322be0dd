// A decode server without a network: it takes the place of the library's connection (the linker sends the
// calls here, see CMakeLists.txt), opens the requests of a read, and answers well or badly.
#pragma once

#include "core/result_code.h"
#include "harness.hpp"

namespace fuzz {

// What a reader sent sealed must open.
inline Bytes opened(View sealed, const uint8_t* key) {
  const std::optional<Bytes> plain = unseal(sealed, key);
  require(plain.has_value());
  return *plain;
}

// A key and the vector that belongs to it.
inline std::array<uint8_t, 32> key_block(View key) {
  std::array<uint8_t, 32> block;
  const Bytes both = bytes_of(key) + View(test::folded_vector(bytes_of(key)));
  std::copy(both.begin(), both.end(), block.begin());
  return block;
}

enum class Reply : uint8_t { kGood, kNone, kStatus, kSealed, kPayload, kRaw };

class DecodeServer {
 public:
  static constexpr uint32_t kCommands[] = {0x7500, 0x7201, 0x7202, 0x7219,  // of a passport read
                                           0x5001, 0x5012, 0x5022, 0x5032, 0x6002, 0x6102, 0x6113};
  static constexpr size_t kPassportCommands = 4;
  static constexpr int32_t kStatusCode = -1301;

  struct Plan {
    Reply reply = Reply::kGood;
    Bytes content;
  };
  std::array<Plan, kPassportCommands> plans;
  std::array<Plan, std::size(kCommands) - kPassportCommands> card_plans;
  uint8_t header = 0x72;
  uint8_t refused_connects = 0;  // bit n: the connect of that number fails
  bool timing = false;           // asks for times
  std::optional<Bytes> files;    // that 0x7202 has brought

  bool connect() {
    connected_ = (refused_connects >> (num_connects_++ & 7) & 1) == 0;
    all_good_ = all_good_ && connected_;
    return connected_;
  }
  void close() { connected_ = false; }
  bool connected() const { return connected_; }
  // Nothing but good answers so far.
  bool all_good() const { return all_good_; }
  // Any status may have been in what was sent.
  bool sent_anything() const { return sent_anything_; }

  // Nothing when the exchange fails.
  Bytes answer(View request) {
    if (!connected_) return {};
    const size_t which = open(request);
    const Plan& plan = which < kPassportCommands ? plans[which] : card_plans[which - kPassportCommands];
    const uint32_t command = kCommands[which];
    const uint8_t type = is_flagged(command) ? 0x99 : 0xAA;
    if (plan.reply != Reply::kGood && command != 0x7219) all_good_ = false;
    if (plan.reply >= Reply::kSealed) sent_anything_ = true;
    if (plan.reply > Reply::kSealed) knows_secrets_ = false;
    switch (plan.reply) {
      case Reply::kNone:
        return {};
      case Reply::kRaw:
        return plan.content;
      case Reply::kPayload:
        return response_frame(header, command, type, 8, plan.content);
      case Reply::kStatus:
        return response_frame(header, command, type, 8, Bytes{0}, 0x1301);
      default:
        return response_frame(header, command, type, 8, payload(command, plan));
    }
  }

 private:
  // Which command it is. Its frame is looked at, and what is encrypted in it.
  size_t open(View request) {
    require(request.size() > 14 && request[0] == header);
    const auto has_code = [&](uint32_t c) {
      return number(request.subspan(1 + test::length_width(c), 2)) == c;
    };
    const auto found = std::find_if(std::begin(kCommands), std::end(kCommands), has_code);
    require(found != std::end(kCommands));
    const uint32_t command = *found;
    const size_t width = test::length_width(command);
    require(number(request.subspan(1, width)) == request.size());
    require(number(request.subspan(3 + width, 2)) == 9);
    require(sum(request.subspan(1, request.size() - 2)) == request.back());
    const uint8_t type = request[7 + width];
    const View body = request.subspan(8 + width, request.size() - 9 - width);
    if (command == 0x7500) take_authentication(body, type);
    if (!knows_secrets_) return static_cast<size_t>(found - kCommands);
    if (command == 0x7201 || command <= 0x6002) check_secret(command, type, body);
    if (command == 0x7202) {
      require(has_prefix(body, token_));
      files = check_secret(command, type, body.subspan(token_.size()));
    }
    if (command == 0x7219) {
      require(type == 0x19 && (has_prefix(body, token_) || has_prefix(body, {})));
      const Bytes block = opened(body.subspan(16), key_.data());
      require(number(View(block).first(2)) == block.size());
      require(sum(View(block).first(block.size() - 1)) == block.back());
    }
    return static_cast<size_t>(found - kCommands);
  }

  static bool is_flagged(uint32_t command) {
    return command == 0x7202 || command == 0x6102 || command == 0x6113;
  }

  static bool has_prefix(View body, const std::array<uint8_t, 16>& prefix) {
    return body.size() > prefix.size() && std::equal(prefix.begin(), prefix.end(), body.begin());
  }

  // The fresh key stands at the end, under the environment's.
  void take_authentication(View body, uint8_t type) {
    require(type == 0xA8 && body.size() > 53);
    static const auto environment = key_block(test::from_hex("DE0E10900000000000000000DEC0D268"));
    const Bytes envelope = opened(body.last(32), environment.data());
    require(envelope.size() == 19 && envelope[1] == 19);
    key_ = key_block(View(envelope).subspan(2, 16));
    opened(body.first(body.size() - 32).subspan(21), key_.data());
  }

  // Returns what is in it.
  Bytes check_secret(uint32_t command, uint8_t type, View sealed) const {
    const Bytes frame = opened(sealed, key_.data());
    require(type == 0xAA && frame.size() > 12);
    const std::optional<Bytes> data = open_secret(frame, command);
    require(data.has_value());
    return *data;
  }

  Bytes payload(uint32_t command, const Plan& plan) {
    const Bytes plain = plan.reply == Reply::kGood ? good_content(command) : plan.content;
    const Bytes sealed = seal(plain, key_.data());
    if (is_flagged(command)) return Bytes{1} + sealed;
    if (command == 0x7201 && plain.size() <= token_.size()) {
      token_.fill(0);
      std::copy(plain.begin(), plain.end(), token_.begin());
    }
    // The reader takes the session's key from here, and keeps its vector.
    if (command == 0x7500 && plain.size() >= 18) std::copy_n(plain.begin() + 2, 16, key_.begin());
    return sealed;
  }

  Bytes good_content(uint32_t command) const {
    if (command == 0x7201) return Bytes(16, 0x70);
    if (is_flagged(command)) return {0, 1, 2};  // an idType
    if (command == 0x5012) return secret_frame(command, Bytes{0x00, 0x84, 0x00, 0x00, 0x08});
    if (command <= 0x6002) return secret_frame(command == 0x5032 ? 0x5022 : command, Bytes(8, 0x5E));
    if (command == 0x7219) return {0};
    const Bytes id = {0, 3, 'B', 'I', 'Z'};
    Bytes block = Bytes{0, 41} + View(work_key(), 16) + id + Bytes(16, 0xC5);
    block.push_back(timing ? 0x10 : 0x00);
    block.push_back(sum(block));
    return block;
  }

  std::array<uint8_t, 32> key_{};
  std::array<uint8_t, 16> token_{};
  bool connected_ = false;
  bool all_good_ = true;
  bool sent_anything_ = false;
  bool knows_secrets_ = true;  // the reader can have key and token only from what was sealed for it
  unsigned num_connects_ = 0;
};

}  // namespace fuzz
