#include "idcard/id_card_read.hpp"

#include <algorithm>
#include <iterator>

#include "core/session/card_relay.h"
#include "idcard/id_card_commands.h"
#include "protocol/card_auth.h"
#include "protocol/monitor_report.h"
#include "protocol/result_report.h"
#include "protocol/server_authentication.h"
#include "protocol/session_values.hpp"
#include "protocol/tcp_transport.h"

namespace tq {
namespace {

// Serial numbers: the step that an answer belongs to.
enum Serial : uint8_t {
  kReqb,
  kAttrib,
  kSelectApplication,
  kManagementData,
  kInternalAuthenticate,
  kChallenge,
  kExternalAuthenticate,
  kSelect6011,
  kRead6011,
  kSelect6012,
  kRead6012,
  kSelect6013,
  kRead6013,
};

constexpr size_t kAnswerRoom = 260;
constexpr size_t kFile6012Room = 620;
constexpr int64_t kFastPathBudgetMs = 200;
constexpr uint32_t kMostEmptyReads = 8;  // in a row, so that no card keeps a read going without giving data
constexpr size_t kChallengeLength = 8;

}  // namespace

// What each answer leads to; the row is its serial number.
const IdCardRead::Handler IdCardRead::kHandlers[] = {
    &IdCardRead::on_reqb,                   // REQB
    &IdCardRead::on_attrib,                 // ATTRIB
    &IdCardRead::on_application_selected,   // SELECT 6002
    &IdCardRead::on_management_data,        // READ management data
    &IdCardRead::on_internal_authenticate,  // INTERNAL AUTHENTICATE
    &IdCardRead::on_challenge,              // GET CHALLENGE
    &IdCardRead::on_external_authenticate,  // EXTERNAL AUTHENTICATE
    &IdCardRead::on_file_6011_selected,     // SELECT 6011
    &IdCardRead::on_file_6011_data,         // READ 6011
    &IdCardRead::on_file_6012_selected,     // SELECT 6012
    &IdCardRead::on_file_6012_data,         // READ 6012
    &IdCardRead::on_file_6013_selected,     // SELECT 6013
    &IdCardRead::on_file_6013_data,         // READ 6013
};

IdCardRead::IdCardRead(ReadSession& session) : CardRead(session) {}

IdCardRead::~IdCardRead() {
  release_business_id(cfg_);
  wipe(&card_, sizeof card_);
  wipe(challenge_prefix_);
}

void IdCardRead::run() {
  begin();
  if (session_.cancelled()) return;
  const int32_t rc = server_authentication(&cfg_, work_key_.data(), &delay_, 0, cfg_.stickCardId);
  if (rc < 0) {
    deliver_result(rc);
    return;
  }
  timing_ = {};
  session_.accept_answers();
  id_card_find_card(&cfg_, kReqb);
  const Outcome outcome = relay_answers();
  if (session_.cancelled()) {
    tq_socket_close();
  } else if (!outcome.silent()) {
    report(outcome.code());
  }
}

Outcome IdCardRead::handle_answer() {
  if (answer_missing() && answer_.serial > kAttrib) return Outcome::end_with(TQ_NO_CARD_ANSWER);
  log_answer();
  if (answer_.serial >= std::size(kHandlers)) return Outcome::end_with(TQ_OUT_OF_RANGE);
  return (this->*kHandlers[answer_.serial])();
}

void IdCardRead::report(int32_t final_result) {
  monitor_data_parse(&cfg_, work_key_.data(), start_time_, final_result, delay_, "", 0, nullptr,
                     cfg_.stickCardId);
  if (final_result < 0) result_business_id_parse(&cfg_, &result_);
  release_business_id(cfg_);
  tq_socket_close();
  deliver_result(final_result);
}

// --- the steps ---

Outcome IdCardRead::on_reqb() {
  id_card_find_card(&cfg_, kAttrib);
  return Outcome::go_on();
}

Outcome IdCardRead::on_attrib() {
  start_timing();
  id_card_find_card(&cfg_, kSelectApplication);
  return Outcome::go_on();
}

Outcome IdCardRead::on_application_selected() {
  uint8_t data[kAnswerRoom];
  if (int32_t rc = check_answer(data); rc < 0) return Outcome::end_with(rc);
  return Outcome::unless_failed(id_card_find_card(&cfg_, kManagementData));
}

Outcome IdCardRead::on_management_data() {
  return Outcome::unless_failed(relayStep(kCardAuth1, kInternalAuthenticate));
}

// When card and server answer fast enough, the next answer of the card is fetched first and both go to the
// server in one exchange.
Outcome IdCardRead::on_internal_authenticate() {
  const int64_t turnaround = elapsed(now(), last_auth_time_);
  last_auth_time_ = turnaround;
  const auto budget =
      static_cast<int64_t>(static_cast<uint64_t>(server_round_trip_) + 2 * static_cast<uint64_t>(turnaround));
  fast_path_ = budget <= kFastPathBudgetMs;
  if (!fast_path_) return Outcome::unless_failed(relayStep(kCardAuth2, kChallenge));

  uint8_t data[kAnswerRoom] = {};
  if (int32_t rc = check_answer(data); rc < 0) return Outcome::end_with(rc);
  count_card_time();
  std::copy_n(data, kChallengeLength, challenge_prefix_.begin());
  challenge_prefix_[kChallengeLength] = 0x90;
  challenge_prefix_[kChallengeLength + 1] = 0x00;
  wipe(data);
  start_timing();
  return Outcome::unless_failed(id_card_auth_get_rand(&cfg_, kChallenge));
}

Outcome IdCardRead::on_challenge() {
  return Outcome::unless_failed(relayStep(fast_path_ ? kCardAuth2And3 : kCardAuth3, kExternalAuthenticate));
}

Outcome IdCardRead::on_external_authenticate() {
  uint8_t data[kAnswerRoom];
  if (int32_t rc = check_answer(data); rc < 0) return Outcome::end_with(rc);
  if (timing_wanted()) {
    count_card_time();
    timing_.cardTime = timing_.exchangeCount == 0 ? 0 : timing_.cardTime / timing_.exchangeCount;
  }
  start_timing();
  return Outcome::unless_failed(id_card_select_file(&cfg_, 0, kSelect6011));
}

Outcome IdCardRead::on_file_6011_selected() {
  uint8_t data[kAnswerRoom];
  if (int32_t rc = check_answer(data); rc < 0) return Outcome::end_with(rc);
  return Outcome::unless_failed(
      id_card_read_file(&cfg_, card_.file6011.count, TQ_FILE_6011_LENGTH, kRead6011));
}

Outcome IdCardRead::on_file_6011_data() {
  Secret<kAnswerRoom> data;
  const int32_t n = check_answer(data.bytes());
  if (n < 0) return Outcome::end_with(n);
  if (n == 0) return Outcome::end_silently();
  card_.file6011.append(data.bytes().first(static_cast<size_t>(n)));
  if (card_.file6011.complete()) return Outcome::unless_failed(id_card_select_file(&cfg_, 1, kSelect6012));
  return Outcome::unless_failed(
      id_card_read_file(&cfg_, card_.file6011.count, TQ_FILE_6011_LENGTH, kRead6011));
}

Outcome IdCardRead::on_file_6012_selected() {
  uint8_t data[kAnswerRoom];
  if (int32_t rc = check_answer(data); rc < 0) return Outcome::end_with(rc);
  return Outcome::unless_failed(
      id_card_read_file(&cfg_, card_.file6012.count, TQ_FILE_6012_LENGTH, kRead6012));
}

Outcome IdCardRead::on_file_6012_data() {
  Secret<kFile6012Room> data;
  const int32_t n = check_answer(data.bytes());
  if (n < 0) return Outcome::end_with(n);
  if (is_empty_too_often(n)) return Outcome::end_with(TQ_NO_CARD_ANSWER);
  card_.file6012.append(data.bytes().first(static_cast<size_t>(n)));
  if (card_.file6012.complete()) return decode_first_files();
  id_card_read_file(&cfg_, card_.file6012.count, TQ_FILE_6012_LENGTH, kRead6012);
  return Outcome::go_on();
}

Outcome IdCardRead::decode_first_files() {
  count_file_time();
  if (cfg_.readMode != 1) return Outcome::unless_failed(decodeStep(kDecodeFiles));
  need_file_6013_ = false;
  const int32_t value = decodeStep(kDecodeIdentity);
  return need_file_6013_ ? Outcome::unless_failed(value) : Outcome::end_with(value);
}

Outcome IdCardRead::on_file_6013_selected() {
  uint8_t data[kAnswerRoom];
  if (int32_t rc = check_answer(data); rc < 0) return Outcome::end_with(rc);
  return Outcome::unless_failed(
      id_card_read_file(&cfg_, card_.file6013.count, TQ_FILE_6013_LENGTH, kRead6013));
}

Outcome IdCardRead::on_file_6013_data() {
  Secret<kAnswerRoom> data;
  const int32_t n = check_answer(data.bytes());
  if (n < 0) return Outcome::end_with(n);
  if (is_empty_too_often(n)) return Outcome::end_with(TQ_NO_CARD_ANSWER);
  card_.file6013.append(data.bytes().first(static_cast<size_t>(n)));
  if (card_.file6013.complete()) {
    count_file_time();
    return Outcome::end_with(decodeStep(kDecodeFile6013));
  }
  return Outcome::unless_failed(
      id_card_read_file(&cfg_, card_.file6013.count, TQ_FILE_6013_LENGTH, kRead6013));
}

// --- what the steps are made of ---

int32_t IdCardRead::check_answer(std::span<uint8_t> out) {
  return tq_read_card_anlysis(&cfg_, answer_.data.data(), answer_.length, out.data(),
                              static_cast<uint32_t>(out.size()));
}

bool IdCardRead::is_empty_too_often(int32_t num_bytes) {
  num_empty_reads_ = num_bytes == 0 ? num_empty_reads_ + 1 : 0;
  return num_empty_reads_ > kMostEmptyReads;
}

// Sends the card's answer to the server and the server's answer to the card.
int32_t IdCardRead::relayStep(uint32_t command, uint8_t next_serial) {
  Secret<kAnswerRoom + 10> payload;  // the saved challenge may come in front
  const auto answer = payload.bytes().subspan(challenge_prefix_.size());
  const int32_t n = check_answer(answer);
  if (n < 0) return n;
  count_card_time();
  if (next_serial == kInternalAuthenticate) {
    if (timing_wanted() && timing_.endTime > timing_.startTime) ++timing_.exchangeCount;
    std::copy_n(answer.begin(), std::min<size_t>(static_cast<size_t>(n), card_.management.size()),
                card_.management.begin());
  }
  std::span<const uint8_t> sent = answer.first(static_cast<size_t>(n));
  if (next_serial == kExternalAuthenticate && fast_path_) {
    std::copy(challenge_prefix_.begin(), challenge_prefix_.end(), payload.bytes().begin());
    sent = payload.bytes().first(challenge_prefix_.size() + static_cast<size_t>(n));
  }
  Secret<TQ_CARD_AUTH_BUFFER> buffer;
  const int32_t len = exchange_for_card(sent, command, buffer.bytes());
  if (len < 0) return len;
  start_timing();
  return tq_read_card_send(&cfg_, buffer.data(), static_cast<uint32_t>(len), next_serial);
}

// One card-authentication exchange in one buffer. Returns the length of the next card command, or the read's
// result.
int32_t IdCardRead::exchange_for_card(std::span<const uint8_t> answer, uint32_t command,
                                      std::span<uint8_t> buffer) {
  const auto capacity = static_cast<uint32_t>(buffer.size());
  const int32_t request_len = input_auth_cmd_group(&cfg_, answer.data(), static_cast<uint32_t>(answer.size()),
                                                   command, work_key_.data(), buffer.data(), capacity);
  if (request_len < 0) return TQ_REQUEST_NOT_BUILT;
  const bool timed = command == kCardAuth1;
  const int64_t before = timed ? now() : 0;
  const int32_t num_received = tcp_send_and_recv(&cfg_, buffer.data(), static_cast<uint32_t>(request_len),
                                                 buffer.data(), capacity, TQ_SHORT_FRAME);
  if (num_received < 0) return num_received;
  if (timed) server_round_trip_ = elapsed(now(), before);
  const int32_t len = output_auth_cmd_analysis(buffer.data(), static_cast<uint32_t>(num_received), command,
                                               work_key_.data(), buffer.data(), capacity);
  if (len < 0) return len == TQ_FAILED ? static_cast<int32_t>(TQ_RESPONSE_MALFORMED) : len;
  if (timed) last_auth_time_ = now();
  return len;
}

// Has the files read so far decoded. A value of 0 or more is a result, or means that the next file is being
// selected.
int32_t IdCardRead::decodeStep(uint32_t command) {
  const bool may_be_large = command == kDecodeFile6013 && cfg_.readMode == 0 && cfg_.decodeMode == 0;
  ScratchBuffer buffer(may_be_large ? TQ_DECODE_BUFFER_LARGE : TQ_DECODE_BUFFER);
  if (!buffer) return TQ_REQUEST_NOT_BUILT;
  const int32_t num_received = ask_for_decoding(command, buffer);
  if (num_received < 0) return num_received;
  const int32_t len =
      output_data_decode_analysis(buffer.data(), static_cast<uint32_t>(num_received), command,
                                  work_key_.data(), buffer.data(), static_cast<uint32_t>(buffer.size()));
  if (len >= 1 && command != kDecodeFiles) {
    return result_info_data_parse(&cfg_, buffer.data(), static_cast<uint32_t>(len), &result_);
  }
  if (len < 1 && command != kDecodeIdentity) {
    return len == TQ_FAILED ? static_cast<int32_t>(TQ_RESPONSE_MALFORMED) : len;
  }
  need_file_6013_ = command == kDecodeIdentity;
  start_timing();
  return id_card_select_file(&cfg_, 2, kSelect6013);
}

int32_t IdCardRead::ask_for_decoding(uint32_t command, ScratchBuffer& buffer) {
  const auto capacity = static_cast<uint32_t>(buffer.size());
  const int32_t len = input_data_decode_group(
      card_.management.data(), TQ_MANAGEMENT_LENGTH, card_.file6011.data.data(), card_.file6011.count,
      card_.file6012.data.data(), card_.file6012.count, card_.file6013.data.data(), card_.file6013.count,
      command, work_key_.data(), buffer.data(), capacity, &timing_);
  if (len < 0) return TQ_REQUEST_NOT_BUILT;
  return tcp_send_and_recv(&cfg_, buffer.data(), static_cast<uint32_t>(len), buffer.data(), capacity,
                           TQ_SHORT_FRAME);
}

// --- timing, when the server wants it ---

void IdCardRead::start_timing() {
  if (timing_wanted()) timing_.startTime = now();
}

void IdCardRead::count_card_time() {
  if (!timing_wanted()) return;
  timing_.endTime = now();
  if (timing_.endTime <= timing_.startTime) return;
  timing_.cardTime += static_cast<uint32_t>(elapsed(timing_.endTime, timing_.startTime));
  ++timing_.exchangeCount;
}

void IdCardRead::count_file_time() {
  if (!timing_wanted()) return;
  const int64_t end = now();
  if (end > timing_.startTime) timing_.fileTime += static_cast<uint32_t>(elapsed(end, timing_.startTime));
}

}  // namespace tq
