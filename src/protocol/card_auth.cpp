#include "protocol/card_auth.h"

#include "protocol/card_auth.hpp"
#include "protocol/session_values.hpp"
#include "util/byte_cursor.hpp"
#include "util/secret.hpp"

namespace tq {
namespace {

constexpr size_t kManagementLength = 32;
constexpr size_t kShortAnswer = 8;
constexpr size_t kLongAnswer = 18;
constexpr size_t kLongestData = kRequestStartMax + 1 + kManagementLength;

// INTERNAL AUTHENTICATE and EXTERNAL AUTHENTICATE for the server's 8 bytes.
constexpr uint8_t kInternalAuthenticate[] = {0x00, 0x88, 0x00, 0x52, 0x0A, 0xF0, 0x00};
constexpr uint8_t kExternalAuthenticate[] = {0x00, 0x82, 0x00, 0x52, 0x0A, 0xF0, 0x01};

struct AnswerRule {
  uint32_t request;
  uint32_t answer;  // command code in the answer's secret frame
  std::span<const uint8_t> prefix;
  uint32_t least_capacity;
};

constexpr AnswerRule kAnswerRules[] = {
    {kCardAuth1, kCardAuth1, kInternalAuthenticate, 8},
    {kCardAuth3, kCardAuth3, kExternalAuthenticate, 8},
    {kCardAuth2And3, kCardAuth3, kExternalAuthenticate, 8},
};

AnswerRule answer_rule(uint32_t command) {
  for (const AnswerRule& rule : kAnswerRules) {
    if (rule.request == command) return rule;
  }
  return {command, command, {}, 5};
}

bool write_first_data(ByteWriter& w, SessionConfig& cfg, std::span<const uint8_t> card) {
  if (card.size() != kManagementLength || !write_request_start(w, cfg)) return false;
  w.u8(static_cast<unsigned>(card.size()));
  w.bytes(card);
  return w.ok();
}

bool write_later_data(ByteWriter& w, std::span<const uint8_t> card) {
  if (card.size() != kShortAnswer && card.size() != kLongAnswer) return false;
  w.bytes(card);
  w.number(0x9000, 2);
  return w.ok();
}

}  // namespace

int32_t build_card_auth(SessionConfig& cfg, std::span<const uint8_t> card, uint32_t command, WorkKey key,
                        std::span<uint8_t> out) {
  Secret<kLongestData> data;
  ByteWriter w(data.bytes());
  const bool written = command == kCardAuth1 ? write_first_data(w, cfg, card) : write_later_data(w, card);
  return written ? build_secret_request({kHeaderIdentityCard, command}, w.written(), key, out) : TQ_FAILED;
}

int32_t take_card_command(std::span<const uint8_t> frame, uint32_t command, WorkKey key,
                          std::span<uint8_t> out) {
  const AnswerRule rule = answer_rule(command);
  if (frame.size() < kLeastFrame || out.size() < rule.least_capacity) return TQ_FAILED;
  ScratchBuffer secret(frame.size());
  if (!secret) return TQ_FAILED;
  const int32_t secret_len = open_frame(frame, {kHeaderIdentityCard, command}, key, secret.bytes());
  if (secret_len < 0) return secret_len;
  const auto plain = secret.bytes().first(static_cast<size_t>(secret_len));
  const int32_t len = open_secret_frame(plain, rule.answer, plain);
  if (len < 0) return len;
  if (rule.prefix.size() + static_cast<size_t>(len) > out.size()) return TQ_FAILED;
  ByteWriter w(out);
  w.bytes(rule.prefix);
  w.bytes(plain.first(static_cast<size_t>(len)));
  return static_cast<int32_t>(w.size());
}

}  // namespace tq

// The names for callers from outside.
extern "C" {

int32_t input_auth_cmd_group(SessionConfig* cfg, const uint8_t* card, uint32_t cardLength, uint32_t command,
                             const uint8_t* workKey, uint8_t* out, uint32_t capacity) {
  if (cfg == nullptr || card == nullptr || out == nullptr) return TQ_FAILED;
  return tq::build_card_auth(*cfg, {card, cardLength}, command, tq::work_key_at(workKey), {out, capacity});
}

int32_t output_auth_cmd_analysis(const uint8_t* frame, uint32_t frameLength, uint32_t command,
                                 const uint8_t* workKey, uint8_t* out, uint32_t capacity) {
  if (frame == nullptr || out == nullptr) return TQ_FAILED;
  return tq::take_card_command({frame, frameLength}, command, tq::work_key_at(workKey), {out, capacity});
}

}  // extern "C"
