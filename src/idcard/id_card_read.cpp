#include "idcard/id_card_read.hpp"

#include <algorithm>
#include <iterator>

#include "core/result_code.hpp"
#include "core/session/card_relay.h"
#include "idcard/id_card_commands.h"
#include "protocol/card_auth.h"
#include "protocol/card_auth.hpp"
#include "protocol/data_decode.hpp"
#include "protocol/result_report.hpp"
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

IdCardRead::~IdCardRead() {
  wipe(&card_, sizeof card_);
  wipe(challenge_prefix_);
}

void IdCardRead::send_first_command() {
  id_card_find_card(&cfg_, kReqb);
}

Outcome IdCardRead::handle_answer() {
  if (answer_missing() && answer_.serial > kAttrib) return Outcome::end_with(TQ_NO_CARD_ANSWER);
  log_answer();
  if (answer_.serial >= std::size(kHandlers)) return Outcome::end_with(TQ_OUT_OF_RANGE);
  return (this->*kHandlers[answer_.serial])();
}

// --- the steps ---

Outcome IdCardRead::on_reqb() {
  id_card_find_card(&cfg_, kAttrib);
  return Outcome::go_on();
}

Outcome IdCardRead::on_attrib() {
  stopwatch_.start();
  id_card_find_card(&cfg_, kSelectApplication);
  return Outcome::go_on();
}

Outcome IdCardRead::on_application_selected() {
  uint8_t data[kAnswerRoom];
  if (int32_t rc = check_answer(data); rc < 0) return Outcome::end_with(rc);
  return Outcome::unless_failed(id_card_find_card(&cfg_, kManagementData));
}

Outcome IdCardRead::on_management_data() {
  return Outcome::unless_failed(relay_step(kCardAuth1, kInternalAuthenticate));
}

// When card and server answer fast enough, the next answer of the card is fetched first and both go to the
// server in one exchange.
Outcome IdCardRead::on_internal_authenticate() {
  const int64_t turnaround = elapsed(now(), last_auth_time_);
  last_auth_time_ = turnaround;
  const auto budget =
      static_cast<int64_t>(static_cast<uint64_t>(server_round_trip_) + 2 * static_cast<uint64_t>(turnaround));
  fast_path_ = budget <= kFastPathBudgetMs;
  if (!fast_path_) return Outcome::unless_failed(relay_step(kCardAuth2, kChallenge));

  uint8_t data[kAnswerRoom] = {};
  if (int32_t rc = check_answer(data); rc < 0) return Outcome::end_with(rc);
  count_card_time();
  std::copy_n(data, kChallengeLength, challenge_prefix_.begin());
  challenge_prefix_[kChallengeLength] = 0x90;
  challenge_prefix_[kChallengeLength + 1] = 0x00;
  wipe(data);
  stopwatch_.start();
  return Outcome::unless_failed(id_card_auth_get_rand(&cfg_, kChallenge));
}

Outcome IdCardRead::on_challenge() {
  return Outcome::unless_failed(relay_step(fast_path_ ? kCardAuth2And3 : kCardAuth3, kExternalAuthenticate));
}

Outcome IdCardRead::on_external_authenticate() {
  uint8_t data[kAnswerRoom];
  if (int32_t rc = check_answer(data); rc < 0) return Outcome::end_with(rc);
  count_card_time();
  if (stopwatch_.wanted())
    timing_.cardTime = timing_.exchangeCount == 0 ? 0 : timing_.cardTime / timing_.exchangeCount;
  stopwatch_.start();
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
  return decode(cfg_.readMode == 1 ? kDecodeIdentity : kDecodeFiles);
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
    return decode(kDecodeFile6013);
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
int32_t IdCardRead::relay_step(uint32_t command, uint8_t next_serial) {
  Secret<kAnswerRoom + 10> payload;  // the saved challenge may come in front
  const auto answer = payload.bytes().subspan(challenge_prefix_.size());
  const int32_t n = check_answer(answer);
  if (n < 0) return n;
  const bool timed = count_card_time();
  if (next_serial == kInternalAuthenticate) {
    if (timed) ++timing_.exchangeCount;
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
  stopwatch_.start();
  return tq_read_card_send(&cfg_, buffer.data(), static_cast<uint32_t>(len), next_serial);
}

// One card-authentication exchange in one buffer. Returns the length of the next card command, or the read's
// result.
int32_t IdCardRead::exchange_for_card(std::span<const uint8_t> answer, uint32_t command,
                                      std::span<uint8_t> buffer) {
  const int32_t request_len = build_card_auth(cfg_, answer, command, work_key_.bytes(), buffer);
  if (request_len < 0) return TQ_REQUEST_NOT_BUILT;
  const bool timed = command == kCardAuth1;
  const int64_t before = timed ? now() : 0;
  const int32_t num_received = exchange(buffer, request_len);
  if (num_received < 0) return num_received;
  if (timed) server_round_trip_ = elapsed(now(), before);
  const auto received = buffer.first(static_cast<size_t>(num_received));
  const int32_t len = take_card_command(received, command, work_key_.bytes(), buffer);
  if (len < 0) return failed_as(TQ_RESPONSE_MALFORMED, len);
  if (timed) last_auth_time_ = now();
  return len;
}

// Has the files read so far decoded: the server answers with the result, or wants file 6013, too.
Outcome IdCardRead::decode(uint32_t command) {
  const bool may_be_large = command == kDecodeFile6013 && cfg_.readMode == 0 && cfg_.decodeMode == 0;
  ScratchBuffer buffer(may_be_large ? TQ_DECODE_BUFFER_LARGE : TQ_DECODE_BUFFER);
  if (!buffer) return Outcome::end_with(TQ_REQUEST_NOT_BUILT);
  const CardFiles files = {card_.management, card_.file6011.bytes(), card_.file6012.bytes(),
                           card_.file6013.bytes()};
  const int32_t request_len =
      build_decode_request(files, command, &timing_, work_key_.bytes(), buffer.bytes());
  if (request_len < 0) return Outcome::end_with(TQ_REQUEST_NOT_BUILT);
  const int32_t num_received = exchange(buffer.bytes(), request_len);
  if (num_received < 0) return Outcome::end_with(num_received);
  const auto received = buffer.bytes().first(static_cast<size_t>(num_received));
  const int32_t len = take_decoded(received, command, work_key_.bytes(), buffer.bytes());

  const bool has_data = len >= 1;
  const bool wants_more = command == kDecodeFiles ? has_data : command == kDecodeIdentity && !has_data;
  if (wants_more) {
    stopwatch_.start();
    return Outcome::unless_failed(id_card_select_file(&cfg_, 2, kSelect6013));
  }
  if (has_data)
    return Outcome::end_with(make_result(cfg_, buffer.bytes().first(static_cast<size_t>(len)), result_));
  if (command == kDecodeFiles && len == 0) return Outcome::end_with(TQ_RESPONSE_MALFORMED);
  return Outcome::end_with(failed_as(TQ_RESPONSE_MALFORMED, len));
}

// Request and answer share the buffer.
int32_t IdCardRead::exchange(std::span<uint8_t> buffer, int32_t request_len) {
  return tcp_send_and_recv(&cfg_, buffer.data(), static_cast<uint32_t>(request_len), buffer.data(),
                           static_cast<uint32_t>(buffer.size()), TQ_SHORT_FRAME);
}

// --- timing ---

// False when no time has passed.
bool IdCardRead::count_card_time() {
  const auto ms = stopwatch_.elapsed_ms();
  if (!ms) return false;
  timing_.cardTime += *ms;
  ++timing_.exchangeCount;
  return true;
}

void IdCardRead::count_file_time() {
  if (const auto ms = stopwatch_.elapsed_ms()) timing_.fileTime += *ms;
}

}  // namespace tq
