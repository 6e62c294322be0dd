#include "passport/passport_read.hpp"

#include <iterator>

#include "core/config/random_draw.hpp"
#include "core/result_code.hpp"
#include "passport/passport_exchange.hpp"
#include "passport/passport_steps.hpp"
#include "util/byte_cursor.hpp"

namespace tq {
namespace {

constexpr size_t kAnswerRoom = 260;
constexpr size_t kChallengeRoom = 12;  // the first 8 bytes count

// Status words that a chip answers with (ISO/IEC 7816-4 section 5.6).
constexpr uint16_t kWrongLength = 0x6700;
constexpr uint8_t kMoreData = 0x61;  // first bytes
constexpr uint8_t kWrongLe = 0x6C;

}  // namespace

// What each answer leads to; the row is its number.
const PassportRead::Handler PassportRead::kHandlers[] = {
    &PassportRead::on_application_selected,   // SELECT application
    &PassportRead::on_challenge,              // GET CHALLENGE
    &PassportRead::on_external_authenticate,  // EXTERNAL AUTHENTICATE
    &PassportRead::on_com_selected,           // SELECT EF.COM
    &PassportRead::on_com_data,               // READ EF.COM
    &PassportRead::on_sod_selected,           // SELECT EF.SOD
    &PassportRead::on_sod_data,               // READ EF.SOD
    &PassportRead::on_data_group_selected,    // SELECT data group
    &PassportRead::on_data_group_data,        // READ data group
    &PassportRead::on_internal_authenticate,  // INTERNAL AUTHENTICATE
};

void PassportRead::send_first_command() {
  stopwatch_.start();
  passport_find_card(&cfg_, kSelectApplication);
}

// Once the signature has been asked for, a chip that is gone only fails what is left.
Outcome PassportRead::handle_answer() {
  if (answer_missing() && !aa_sent_) return Outcome::end_with(TQ_NO_CARD_ANSWER);
  log_answer();
  if (answer_.serial < std::size(kHandlers)) return (this->*kHandlers[answer_.serial])();
  return pace_begun_ ? handle_pace_answer() : Outcome::end_with(TQ_OUT_OF_RANGE);
}

void PassportRead::complete_report(MonitorReport& report) const {
  report.sod_text = status_text_.data();
  report.prefix = token_.bytes();
}

// --- Basic Access Control ---

Outcome PassportRead::on_application_selected() {
  ChipAnswer answer;
  judge_answer(answer, kAnswerRoom);
  if (!answer.good()) return open_otherwise(answer, answer.code());
  count_opening_time();
  const Outcome started = start_on_the_server();
  if (!started.goes_on()) return started;
  MrzFields mrz;
  const WipeOnExit wipe_mrz(mrz);
  if (!take_mrz(mrz) || !derive_document_keys(mrz, access_)) return Outcome::end_with(TQ_CARD_REFUSED);
  return ask_for_challenge();
}

bool PassportRead::take_mrz(MrzFields& out) const {
  return copy_bytes(session_.input(), {reinterpret_cast<uint8_t*>(&out), sizeof out});
}

Outcome PassportRead::start_on_the_server() {
  if (int32_t rc = start_on_server(cfg_, work_key_.bytes(), token_.bytes()); rc < 0)
    return Outcome::end_with(rc);
  started_on_server_ = true;
  disconnect();
  return Outcome::go_on();
}

Outcome PassportRead::ask_for_challenge() {
  stopwatch_.start();
  passport_rand_number_IC(&cfg_, kChallenge);
  return Outcome::go_on();
}

Outcome PassportRead::on_challenge() {
  ChipAnswer answer;
  judge_answer(answer, kChallengeRoom);
  if (answer.code() == TQ_NO_CARD_ANSWER) return Outcome::end_with(answer.code());
  if (!answer.good()) return open_otherwise(answer, TQ_CARD_REFUSED);
  if (answer.data().size() < access_.rnd_ic.size()) return Outcome::end_with(TQ_CARD_REFUSED);
  count_opening_time();
  static_cast<void>(copy_bytes(answer.data().first(access_.rnd_ic.size()), access_.rnd_ic.bytes()));
  if (!draw_random(cfg_, access_.rnd_ifd.bytes()) || !draw_random(cfg_, access_.k_ifd.bytes()))
    return Outcome::end_with(TQ_FAILED);
  Cryptogram cryptogram{};
  if (!make_cryptogram(access_, cryptogram)) return Outcome::end_with(TQ_CARD_REFUSED);
  send_cryptogram(&cfg_, cryptogram, cryptogram_le_, kExternalAuthenticate);
  return Outcome::go_on();
}

// Some chips take any expected length but the right one; they get a new challenge first.
Outcome PassportRead::on_external_authenticate() {
  ChipAnswer answer;
  judge_answer(answer, kAnswerRoom);
  if (answer.status() == kWrongLength && cryptogram_le_ != kAnyLen) {
    cryptogram_le_ = kAnyLen;
    return ask_for_challenge();
  }
  if (answer.code() == TQ_NO_CARD_ANSWER) return Outcome::end_with(answer.code());
  if (!answer.good()) return open_otherwise(answer, TQ_AUTHENTICATION_REFUSED);
  if (!open_channel(answer.data(), access_, channel_)) return Outcome::end_with(TQ_CARD_REFUSED);
  return select_com();
}

// --- EF.COM and EF.SOD ---

Outcome PassportRead::select_com() {
  stopwatch_.start();
  return wait_if(reader_.select(TQ_EF_COM, kSelectCom));
}

Outcome PassportRead::select_sod() {
  return wait_if(reader_.select(TQ_EF_SOD, kSelectSod));
}

Outcome PassportRead::on_com_selected() {
  ChipAnswer answer;
  open_answer(answer);
  return answer.good() ? wait_if(reader_.start(TQ_EF_COM, kReadCom)) : select_sod();
}

Outcome PassportRead::on_com_data() {
  switch (reader_.take(TQ_EF_COM, answer_.bytes())) {
    case FileReader::Progress::kGoesOn:
      return Outcome::go_on();
    case FileReader::Progress::kNotSent:
      return wait_if(false);
    case FileReader::Progress::kFailed:
      return select_sod();
    case FileReader::Progress::kComplete:
      break;
  }
  count_reading_time();
  data_groups_.take_from_com(bytes_of(*files_.find(TQ_EF_COM)));
  stopwatch_.start();
  return select_sod();
}

Outcome PassportRead::on_sod_selected() {
  ChipAnswer answer;
  open_answer(answer);
  if (!answer.good()) return Outcome::end_with(failed_as(TQ_CARD_FAILED, answer.code()));
  return wait_if(reader_.start(TQ_EF_SOD, kReadSod));
}

Outcome PassportRead::on_sod_data() {
  switch (reader_.take(TQ_EF_SOD, answer_.bytes())) {
    case FileReader::Progress::kGoesOn:
      return Outcome::go_on();
    case FileReader::Progress::kNotSent:
      return wait_if(false);
    case FileReader::Progress::kFailed:
      return Outcome::end_with(reader_.code());
    case FileReader::Progress::kComplete:
      break;
  }
  count_reading_time();
  if (!data_groups_.take_from_sod(bytes_of(*files_.find(TQ_EF_SOD))))
    return Outcome::end_with(TQ_CARD_FAILED);
  data_groups_.put_in_order(cfg_.readMode != 1);
  return select_data_group();
}

// --- the data groups ---

Outcome PassportRead::select_data_group() {
  const uint16_t id = data_groups_.current();
  if (id == 0 || (files_.find(id) == nullptr && files_.full())) return Outcome::end_with(TQ_CARD_FAILED);
  if (is_core(id)) stopwatch_.start();
  return wait_if(reader_.select(id, kSelectDataGroup));
}

Outcome PassportRead::select_next_data_group() {
  return data_groups_.advance() ? select_data_group() : have_files_decoded();
}

Outcome PassportRead::on_data_group_selected() {
  const uint16_t id = data_groups_.current();
  if (id == 0) return Outcome::end_with(TQ_CARD_FAILED);
  ChipAnswer answer;
  open_answer(answer);
  if (answer.good()) return wait_if(reader_.start(id, kReadDataGroup));
  if (is_core(id)) return Outcome::end_with(failed_as(TQ_CARD_FAILED, answer.code()));
  const bool kept = files_.append(id, cfg_.lastStatusWord) != nullptr;
  return kept ? select_next_data_group() : Outcome::end_with(TQ_CARD_FAILED);
}

Outcome PassportRead::on_data_group_data() {
  const uint16_t id = data_groups_.current();
  if (id == 0) return Outcome::end_with(TQ_CARD_FAILED);
  switch (reader_.take(id, answer_.bytes())) {
    case FileReader::Progress::kGoesOn:
      return Outcome::go_on();
    case FileReader::Progress::kNotSent:
      return wait_if(false);
    case FileReader::Progress::kFailed:
      return is_core(id) ? Outcome::end_with(reader_.code()) : select_next_data_group();
    case FileReader::Progress::kComplete:
      break;
  }
  if (is_core(id)) count_reading_time();
  const uint16_t last_core_file = cfg_.readMode == 1 ? TQ_EF_DG1 : TQ_EF_DG2;
  if (id != last_core_file || files_.find(TQ_EF_DG15) == nullptr) return select_next_data_group();
  if (!draw_random(cfg_, aa_challenge_.bytes())) return Outcome::end_with(TQ_FAILED);
  return authenticate_actively(kAnyLen);
}

// ICAO Doc 9303-11 section 6.1; the server judges the answer.
Outcome PassportRead::authenticate_actively(uint8_t le) {
  aa_sent_ = true;
  return wait_if(send_protected(cfg_, channel_, {{0x00, 0x88, 0x00, 0x00}, aa_challenge_.bytes(), le},
                                kInternalAuthenticate));
}

Outcome PassportRead::on_internal_authenticate() {
  open_answer(aa_answer_);
  if (aa_answer_.status_is(kWrongLe) && !aa_asked_again_) {
    aa_asked_again_ = true;
    return authenticate_actively(aa_answer_.sw2());
  }
  has_signature_ = aa_answer_.good() || aa_answer_.status_is(kMoreData);
  return select_next_data_group();
}

Outcome PassportRead::have_files_decoded() {
  reader_.abandon();
  if (int32_t rc = connect(); rc < 0)
    return Outcome::end_with(rc == TQ_CONNECT_DENIED ? rc : int32_t{TQ_CONNECT_FAILED});
  const std::span<const uint8_t> nothing;
  const PassportContent content = {files_.rows(), has_signature_ ? aa_answer_.data() : nothing,
                                   aa_challenge_.bytes(),
                                   num_opening_ == 0 ? opening_ms_ : opening_ms_ / num_opening_, reading_ms_};
  const int32_t rc = decode_on_server(cfg_, work_key_.bytes(), token_.bytes(), content, result_);
  write_status_text(files_.rows(), status_text_);
  return Outcome::end_with(rc);
}

// --- timing ---

void PassportRead::count_opening_time() {
  if (const auto ms = stopwatch_.elapsed_ms()) {
    opening_ms_ += *ms;
    ++num_opening_;
  }
}

void PassportRead::count_reading_time() {
  if (const auto ms = stopwatch_.elapsed_ms()) reading_ms_ += *ms;
}

}  // namespace tq
