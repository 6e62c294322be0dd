// A decode server without a network: it takes the place of the library's connection (the linker sends the
// calls here, see CMakeLists.txt), opens and checks every request of a passport read, and answers well or
// badly.
#pragma once

#include <algorithm>
#include <array>
#include <iterator>

#include "core/result_code.h"
#include "harness.hpp"
#include "protocol/protocol_key.h"

namespace fuzz {

inline Bytes unseal(View sealed, const uint8_t* key) {
  Bytes plain(sealed.begin(), sealed.end());
  const int32_t len = TQ_sm4Decrypt(plain.data(), static_cast<int32_t>(plain.size()), key, 0, plain.data());
  require(len >= 0);
  plain.resize(static_cast<size_t>(len));
  return plain;
}

// Takes numbers and counted bytes off the front; whatever does not fit is a fault of the library.
class Fields {
 public:
  explicit Fields(View bytes) : rest_(bytes) {}

  View take(size_t len) {
    require(len <= rest_.size());
    const View front = rest_.first(len);
    rest_ = rest_.subspan(len);
    return front;
  }
  size_t number(size_t width) {
    size_t value = 0;
    for (const uint8_t byte : take(width)) value = value << 8 | byte;
    return value;
  }
  View counted() { return take(number(2)); }
  View rest() const { return rest_; }

 private:
  View rest_;
};

enum class Reply : uint8_t { kGood, kNone, kStatus, kSealed, kPayload, kRaw };

class DecodeServer {
 public:
  static constexpr uint32_t kCommands[] = {0x7500, 0x7201, 0x7202, 0x7219};
  static constexpr int32_t kStatusCode = -1301;

  struct Plan {
    Reply reply = Reply::kGood;
    Bytes content;
  };
  std::array<Plan, std::size(kCommands)> plans;
  uint8_t refused_connects = 0;  // bit n: the connect of that number fails
  bool timing = false;           // asks for times

  bool connect() {
    const bool refused = (refused_connects >> (num_connects_++ & 7) & 1) != 0;
    connected_ = !refused;
    all_good_ = all_good_ && !refused;
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
    const Plan& plan = plans[which];
    const uint32_t command = kCommands[which];
    const uint8_t type = command == 0x7202 ? 0x99 : 0xAA;
    if (plan.reply != Reply::kGood && command != 0x7219) all_good_ = false;
    if (plan.reply >= Reply::kSealed) sent_anything_ = true;
    if (plan.reply > Reply::kSealed) knows_secrets_ = false;
    switch (plan.reply) {
      case Reply::kNone:
        return {};
      case Reply::kRaw:
        return plan.content;
      case Reply::kPayload:
        return response_frame(0x72, command, type, 8, plan.content);
      case Reply::kStatus: {
        Bytes frame = response_frame(0x72, command, type, 8, Bytes{0});
        const size_t status_at = 3 + length_width(command);
        frame[status_at + 1] = 0x13;
        frame[status_at + 2] = 0x01;
        frame.back() = sum(View(frame).subspan(1, frame.size() - 2));
        return frame;
      }
      default:
        return response_frame(0x72, command, type, 8, payload(command, plan));
    }
  }

 private:
  // Which command it is; every byte of it is looked at.
  size_t open(View request) {
    Fields fields(request);
    require(fields.number(1) == 0x72);
    const size_t which = command_of(request);
    const uint32_t command = kCommands[which];
    require(fields.number(length_width(command)) == request.size() && fields.number(2) == command);
    require(fields.number(2) == 0x0009 && sum(request.subspan(1, request.size() - 2)) == request.back());
    fields.take(2);
    const auto type = static_cast<uint8_t>(fields.number(1));
    const View body = fields.take(fields.rest().size() - 1);
    if (command == 0x7500) take_authentication(body, type);
    if (!knows_secrets_) return which;
    if (command == 0x7201) take_start(opened(command, type, body));
    if (command == 0x7202) {
      require(starts_with_token(body));
      take_files(opened(command, type, body.subspan(token_.size())));
    }
    if (command == 0x7219) take_report(body, type);
    return which;
  }

  bool starts_with_token(View body) const {
    return body.size() > token_.size() && std::equal(token_.begin(), token_.end(), body.begin());
  }

  static size_t command_of(View request) {
    for (size_t i = 0; i < std::size(kCommands); ++i) {
      const size_t at = 1 + length_width(kCommands[i]);
      if (request.size() > at + 9 && Fields(request.subspan(at)).number(2) == kCommands[i]) return i;
    }
    require(false);
    return 0;
  }

  // The fresh key stands at the end, under the environment's.
  void take_authentication(View body, uint8_t type) {
    require(type == 0xA8 && body.size() > 53);
    uint8_t environment[32];
    TQ_getSm4PubulicKey(268, environment);
    TQ_sm4InitIv(environment, environment + 16);
    const Bytes envelope = unseal(body.last(32), environment);
    require(envelope.size() == 19 && envelope[1] == 19);
    std::copy_n(envelope.begin() + 2, 16, key_.begin());
    TQ_sm4InitIv(key_.data(), key_.data() + 16);
    unseal(body.first(body.size() - 32).subspan(21), key_.data());
  }

  Bytes opened(uint32_t command, uint8_t type, View sealed) const {
    require(type == 0xAA);
    const Bytes frame = unseal(sealed, key_.data());
    require(frame.size() > 12);
    const View data = View(frame).first(frame.size() - 3).subspan(9);
    require(frame == secret_frame(command, data));
    return {data.begin(), data.end()};
  }

  static void take_start(const Bytes& data) {
    Fields fields(data);
    fields.take(4);
    fields.take(fields.number(1) + 3);
    require(fields.rest().empty());
  }

  static void take_files(const Bytes& data) {
    Fields fields(data);
    for (int i = 0; i < 17; ++i) fields.counted();
    require(fields.counted().size() <= 300);
    fields.take(8);
    fields.counted();
    fields.take(4);
    require(fields.rest().empty());
  }

  void take_report(View body, uint8_t type) const {
    require(type == 0x19 && body.size() >= 32);
    require(starts_with_token(body) ||
            std::all_of(body.begin(), body.begin() + 16, [](uint8_t b) { return b == 0; }));
    const Bytes block = unseal(body.subspan(16), key_.data());
    require(Fields(block).number(2) == block.size());
    require(sum(View(block).first(block.size() - 1)) == block.back());
  }

  Bytes payload(uint32_t command, const Plan& plan) {
    Bytes plain = plan.reply == Reply::kGood ? good_content(command) : plan.content;
    Bytes sealed = seal(plain, key_.data());
    if (command == 0x7202) sealed.insert(sealed.begin(), 1);
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
    if (command == 0x7202) return {0, 1, 2};  // an idType
    if (command == 0x7219) return {0};
    Bytes block = {0, 0};
    block.insert(block.end(), work_key(), work_key() + 16);
    append(block, Bytes{0, 3, 'B', 'I', 'Z'});
    block.resize(block.size() + 16, 0xC5);
    block.push_back(timing ? 0x10 : 0x00);
    block[1] = static_cast<uint8_t>(block.size() + 1);
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
