#include "core/session/card_relay.h"

#include <algorithm>
#include <initializer_list>
#include <iterator>
#include <span>

#include "util/byte_cursor.hpp"
#include "util/diagnostics.hpp"

namespace {

using Bytes = std::span<const uint8_t>;

constexpr uint32_t kStatusGood = 0x9000;

bool ends_with(Bytes bytes, std::initializer_list<uint8_t> end) {
  return bytes.size() >= end.size() &&
         std::equal(end.begin(), end.end(), bytes.end() - static_cast<ptrdiff_t>(end.size()));
}

bool starts_with_zeros(Bytes bytes) {
  return bytes[0] == 0x00 && bytes[1] == 0x00;
}

uint32_t two_bytes(Bytes bytes) {
  return static_cast<uint32_t>(bytes[0]) << 8 | bytes[1];
}

int32_t take_data(SessionConfig& cfg, Bytes data, std::span<uint8_t> out) {
  if (!tq::copy_bytes(data, out)) return TQ_FAILED;
  std::fill(std::begin(cfg.lastCommand), std::end(cfg.lastCommand), uint8_t{0});
  cfg.lastCommandLength = 0;
  cfg.lastStatusWord = kStatusGood;
  return static_cast<int32_t>(data.size());
}

int32_t judge_one_byte(SessionConfig& cfg, uint8_t byte) {
  cfg.lastStatusWord = static_cast<uint32_t>(byte) << 8;
  if (byte == 0x02) return TQ_CARD_FAILED;
  return byte == 0x00 ? TQ_NO_CARD_ANSWER : TQ_FAILED;
}

// Two or three bytes that are not a good status: the first two are the status word.
int32_t judge_status_only(SessionConfig& cfg, Bytes answer) {
  cfg.lastStatusWord = two_bytes(answer);
  const bool refused = cfg.lastStatusWord == 0x6986 && (answer.size() == 2 || answer[2] == 0x00);
  if (refused) return TQ_CARD_REFUSED;
  return starts_with_zeros(answer) ? TQ_NO_CARD_ANSWER : TQ_FAILED;
}

// The low half of the status of a long answer: its last two bytes, or its last non-zero byte in the upper of
// them.
uint32_t trailing_status(Bytes answer) {
  if (answer.back() != 0x00) return two_bytes(answer.last(2));
  const auto last = std::find_if(answer.rbegin(), answer.rend(), [](uint8_t b) { return b != 0x00; });
  return last == answer.rend() ? 0 : static_cast<uint32_t>(*last) << 8;
}

int32_t judge_long(SessionConfig& cfg, Bytes answer) {
  cfg.lastStatusWord = two_bytes(answer) << 16 | trailing_status(answer);
  return starts_with_zeros(answer) ? TQ_NO_CARD_ANSWER : TQ_FAILED;
}

}  // namespace

extern "C" {

int32_t tq_read_card_send(SessionConfig* cfg, const uint8_t* command, uint32_t length, uint8_t serial) {
  if (cfg == nullptr || command == nullptr) return TQ_OK;
  cfg->lastStatusWord = 0;
  if (cfg->logLevel == 2) tq::dump(tq::Dump::kCommand, {command, length});
  cfg->lastCommandLength = static_cast<uint8_t>(std::min<uint32_t>(length, TQ_LAST_COMMAND_MAX));
  std::copy_n(command, cfg->lastCommandLength, cfg->lastCommand);
  if (cfg->cardCallback != nullptr) cfg->cardCallback(command, length, serial, cfg->cardCallbackData);
  return TQ_OK;
}

int32_t tq_read_card_anlysis(SessionConfig* cfg, const uint8_t* answer, uint32_t length, uint8_t* out,
                             uint32_t capacity) {
  if (cfg == nullptr || answer == nullptr || length == 0) return TQ_NO_CARD_ANSWER;
  const Bytes all(answer, length);
  const std::span<uint8_t> room(out, out == nullptr ? 0 : capacity);
  if (length == 1) return judge_one_byte(*cfg, all[0]);
  if (ends_with(all, {0x90, 0x00})) return take_data(*cfg, all.first(length - 2), room);
  if (ends_with(all, {0x90, 0x00, 0x00})) return take_data(*cfg, all.first(length - 3), room);
  return length <= 3 ? judge_status_only(*cfg, all) : judge_long(*cfg, all);
}

}  // extern "C"
