// The road of a read whose chip has no Basic Access Control (ICAO Doc 9303-11 section 4.4): EF.CardAccess,
// PACE, and SELECT of the application through the channel that comes of it.
#include <algorithm>
#include <iterator>

#include "core/config/random_draw.hpp"
#include "core/session/card_relay.h"
#include "passport/access_control.h"
#include "passport/card_access.hpp"
#include "passport/passport_read.hpp"
#include "passport/passport_steps.hpp"

namespace tq {
namespace {

// A chip says that it wants PACE (ISO/IEC 7816-4 section 5.6): security status or conditions of use not
// satisfied, secure messaging missing or its data wrong, key not found, instruction or class not known. A
// wrong key of Basic Access Control says 63 00.
constexpr uint16_t kWantsPace[] = {0x6982, 0x6985, 0x6988, 0x6A88, 0x6D00, 0x6E00};

constexpr uint8_t kMasterFile[] = {0x3F, 0x00};
constexpr uint8_t kApplication[] = {0xA0, 0x00, 0x00, 0x02, 0x47, 0x10, 0x01};

}  // namespace

const PassportRead::Handler PassportRead::kPaceHandlers[] = {
    &PassportRead::on_master_file_selected,          // SELECT MF
    &PassportRead::on_card_access_selected,          // SELECT EF.CardAccess
    &PassportRead::on_card_access_data,              // READ EF.CardAccess
    &PassportRead::on_pace_answer,                   // MANAGE SECURITY ENVIRONMENT
    &PassportRead::on_pace_answer,                   // GENERAL AUTHENTICATE: nonce
    &PassportRead::on_pace_answer,                   // mapping
    &PassportRead::on_pace_answer,                   // key agreement
    &PassportRead::on_pace_answer,                   // token
    &PassportRead::on_application_selected_by_pace,  // SELECT application
};

Outcome PassportRead::handle_pace_answer() {
  const size_t row = answer_.serial - size_t{kFirstPaceStep};
  return row < std::size(kPaceHandlers) ? (this->*kPaceHandlers[row])() : Outcome::end_with(TQ_OUT_OF_RANGE);
}

Outcome PassportRead::open_otherwise(const ChipAnswer& refusal, int32_t code) {
  const bool wants_pace =
      std::find(std::begin(kWantsPace), std::end(kWantsPace), refusal.status()) != std::end(kWantsPace);
  if (!wants_pace || pace_begun_) return Outcome::end_with(code);
  pace_begun_ = true;
  code_without_pace_ = code;
  if (!started_on_server_) return select_card_access();
  // The application is selected, and EF.CardAccess is not in it.
  return wait_if(send_in_clear(cfg_, {{0x00, 0xA4, 0x00, 0x0C}, kMasterFile}, kSelectMasterFile));
}

Outcome PassportRead::on_master_file_selected() {
  ChipAnswer answer;
  judge_answer(answer);
  return answer.good() ? select_card_access() : Outcome::end_with(code_without_pace_);
}

Outcome PassportRead::select_card_access() {
  return wait_if(reader_.select(TQ_EF_CARD_ACCESS, kSelectCardAccess, FileReader::Way::kInClear));
}

Outcome PassportRead::on_card_access_selected() {
  ChipAnswer answer;
  judge_answer(answer);
  if (!answer.good()) return Outcome::end_with(code_without_pace_);
  return wait_if(reader_.start(TQ_EF_CARD_ACCESS, kReadCardAccess, FileReader::Way::kInClear));
}

Outcome PassportRead::on_card_access_data() {
  switch (reader_.take(TQ_EF_CARD_ACCESS, answer_.bytes())) {
    case FileReader::Progress::kGoesOn:
      return Outcome::go_on();
    case FileReader::Progress::kNotSent:
      return wait_if(false);
    case FileReader::Progress::kFailed:
      return Outcome::end_with(code_without_pace_);
    case FileReader::Progress::kComplete:
      break;
  }
  PassportFileRecord& file = *files_.find(TQ_EF_CARD_ACCESS);
  const std::optional<PaceOffer> offer = strongest_pace(bytes_of(file));
  drop_file(file);
  if (!offer) return Outcome::end_with(code_without_pace_);
  MrzFields mrz;
  const WipeOnExit wipe_mrz(mrz);
  Secret<kMrzDigestLen> password;
  if (!take_mrz(mrz) || !digest_mrz(mrz.number, mrz.birth, mrz.expiry, password.bytes()))
    return Outcome::end_with(TQ_CARD_REFUSED);
  pace_.emplace(*offer, password.bytes());
  return go_on_with_pace(*pace_, pace_->begin());
}

Outcome PassportRead::on_pace_answer() {
  if (!pace_) return Outcome::end_with(TQ_CARD_REFUSED);
  Pace& pace = *pace_;
  ChipAnswer answer;
  judge_answer(answer);
  if (answer.code() == TQ_NO_CARD_ANSWER) return Outcome::end_with(answer.code());
  if (!answer.good()) return go_on_with_pace(pace, pace.take_refusal());
  Secret<Pace::kRandomLen> random;
  const bool draws = answer_.serial == kPaceNonce || answer_.serial == kPaceMapping;
  if (draws && !draw_random(cfg_, random.bytes())) return Outcome::end_with(TQ_FAILED);
  switch (answer_.serial) {
    case kPaceProtocol:
      return go_on_with_pace(pace, pace.take_acceptance(answer.data()));
    case kPaceNonce:
      count_opening_time();
      return go_on_with_pace(pace, pace.take_nonce(answer.data(), random.bytes()));
    case kPaceMapping:
      return go_on_with_pace(pace, pace.take_mapping_key(answer.data(), random.bytes()));
    case kPaceKeyAgreement:
      return go_on_with_pace(pace, pace.take_public_key(answer.data()));
    default:
      return go_on_with_pace(pace, pace.take_token(answer.data()));
  }
}

// The next command of PACE carries the next number.
Outcome PassportRead::go_on_with_pace(Pace& pace, Pace::Result result) {
  switch (result) {
    case Pace::Result::kNext: {
      const auto step = static_cast<uint8_t>(std::max<unsigned>(answer_.serial + 1U, kPaceProtocol));
      if (step == kPaceNonce) stopwatch_.start();
      const std::span<const uint8_t> command = pace.command();
      tq_read_card_send(&cfg_, command.data(), static_cast<uint32_t>(command.size()), step);
      return Outcome::go_on();
    }
    case Pace::Result::kDone:
      break;
    case Pace::Result::kWrongKey:
      return Outcome::end_with(TQ_AUTHENTICATION_REFUSED);
    case Pace::Result::kNonsense:
      return Outcome::end_with(TQ_CARD_REFUSED);
  }
  channel_.start(pace.keys(), {});
  pace_.reset();
  stopwatch_.start();
  return wait_if(
      send_protected(cfg_, channel_, {{0x00, 0xA4, 0x04, 0x0C}, kApplication}, kSelectApplicationByPace));
}

Outcome PassportRead::on_application_selected_by_pace() {
  ChipAnswer answer;
  open_answer(answer);
  if (!answer.good())
    return Outcome::end_with(answer.code() == TQ_NO_CARD_ANSWER ? answer.code() : int32_t{TQ_CARD_REFUSED});
  count_opening_time();
  if (!started_on_server_) {
    const Outcome started = start_on_the_server();
    if (!started.goes_on()) return started;
  }
  return select_com();
}

}  // namespace tq
