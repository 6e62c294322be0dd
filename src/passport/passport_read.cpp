#include "passport/passport_read.hpp"

#include <algorithm>
#include <array>
#include <iterator>

#include "core/session/card_relay.h"
#include "passport/data_groups.h"
#include "passport/file_reader.hpp"
#include "passport/passport_exchange.hpp"
#include "protocol/monitor_report.h"
#include "protocol/result_report.h"
#include "protocol/server_authentication.h"
#include "protocol/session_values.hpp"
#include "protocol/tcp_transport.h"
#include "util/byte_cursor.hpp"
#include "util/secret.hpp"

namespace tq {
namespace {

// Numbers of the steps: the command that an answer belongs to.
enum StepNumber : uint8_t {
  kSelectApplication,
  kChallenge,
  kExternalAuthenticate,
  kSelectCom,
  kReadCom,
  kSelectSod,
  kReadSod,
  kSelectDataGroup,
  kReadDataGroup,
  kInternalAuthenticate,
};

constexpr size_t kAnswerRoom = 260;
constexpr size_t kChallengeRoom = 12;

// These are read first, if the chip has them.
constexpr uint16_t kFirstFiles[] = {TQ_EF_DG15, TQ_EF_DG11, TQ_EF_DG1, TQ_EF_DG2};

// A read cannot do without these.
constexpr bool is_core(uint16_t file_id) {
  return file_id == TQ_EF_DG1 || file_id == TQ_EF_DG2;
}

// What a refused SELECT of a file that is needed comes to.
int32_t selection_failure(int32_t code) {
  if (code == TQ_FAILED) return TQ_CARD_FAILED;
  return code == -2 ? static_cast<int32_t>(TQ_FAILED) : code;
}

// EXTERNAL AUTHENTICATE was not answered, or refused.
Outcome authentication_failure(int32_t code) {
  return Outcome::end_with(code == TQ_NO_CARD_ANSWER ? code : int32_t{TQ_AUTHENTICATION_REFUSED});
}

Outcome failed_unless_sent(int32_t rc) {
  return rc < 0 ? Outcome::end_with(TQ_CARD_FAILED) : Outcome::go_on();
}

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

void PassportRead::run() {
  begin();
  if (session_.cancelled()) return;
  const int32_t rc = server_authentication(&cfg_, work_key_.data(), &delay_, 0, cfg_.stickCardId);
  if (rc < 0) {
    deliver_result(rc);
    return;
  }
  connected_ = true;
  session_.accept_answers();
  start_timing();
  passport_find_card(&cfg_, kSelectApplication);
  const Outcome outcome = relay_answers();
  if (session_.cancelled() || outcome.silent()) {
    tq_socket_close();
  } else {
    report(outcome.code());
  }
}

Outcome PassportRead::handle_answer() {
  if (answer_missing() && !aa_sent_) return Outcome::end_with(TQ_NO_CARD_ANSWER);
  log_answer();
  if (answer_.serial >= std::size(kHandlers)) return Outcome::end_with(TQ_OUT_OF_RANGE);
  return (this->*kHandlers[answer_.serial])();
}

void PassportRead::report(int32_t final_result) {
  if (!connected_) static_cast<void>(tq_socket_connect(&cfg_));
  monitor_data_parse(&cfg_, work_key_.data(), start_time_, final_result, delay_, timing_.statusText, 0,
                     token_.data(), cfg_.stickCardId);
  if (final_result < 0) result_business_id_parse(&cfg_, &result_);
  release_business_id(cfg_);
  tq_socket_close();
  deliver_result(final_result);
}

// --- Basic Access Control ---

Outcome PassportRead::on_application_selected() {
  std::array<uint8_t, kAnswerRoom> data{};
  if (int32_t rc = check_answer(data); rc < 0) return Outcome::end_with(rc);
  if (stop_timing(timing_.bacTime)) ++timing_.bacCount;
  if (int32_t rc = start_on_server(cfg_, work_key_.bytes(), token_.bytes()); rc < 0)
    return Outcome::end_with(rc);
  tq_socket_close();
  connected_ = false;
  MrzFields mrz;
  const WipeOnExit wipe_mrz(mrz);
  const std::span<uint8_t> mrz_bytes(reinterpret_cast<uint8_t*>(&mrz), sizeof mrz);
  if (!copy_bytes(session_.input(), mrz_bytes) || !derive_document_keys(mrz, access_))
    return Outcome::end_with(TQ_CARD_REFUSED);
  start_timing();
  return passport_rand_number_IC(&cfg_, kChallenge) < 0 ? Outcome::end_silently() : Outcome::go_on();
}

Outcome PassportRead::on_challenge() {
  Secret<kChallengeRoom> data;
  const int32_t n = check_answer(data.bytes());
  if (n == TQ_NO_CARD_ANSWER) return Outcome::end_with(n);
  if (n < static_cast<int32_t>(access_.rnd_ic.size())) return Outcome::end_with(TQ_CARD_REFUSED);
  if (stop_timing(timing_.bacTime)) ++timing_.bacCount;
  if (timing_.bacCount > 0) timing_.bacTime /= timing_.bacCount;
  std::copy_n(data.data(), access_.rnd_ic.size(), access_.rnd_ic.data());
  if (!draw_random(cfg_, access_.rnd_ifd.bytes()) || !draw_random(cfg_, access_.k_ifd.bytes()))
    return Outcome::end_with(TQ_FAILED);
  Cryptogram cryptogram{};
  if (!make_cryptogram(access_, cryptogram)) return Outcome::end_with(TQ_CARD_REFUSED);
  const int32_t rc = send_cryptogram(&cfg_, cryptogram, kCryptogramLen, kExternalAuthenticate);
  return rc < 0 ? authentication_failure(rc) : Outcome::go_on();
}

Outcome PassportRead::on_external_authenticate() {
  Secret<kAnswerRoom> data;
  const int32_t n = check_answer(data.bytes());
  if (n < 0) return authentication_failure(n);
  if (!open_channel(data.bytes().first(static_cast<size_t>(n)), access_, channel_))
    return Outcome::end_with(TQ_CARD_REFUSED);
  return select_com();
}

// --- EF.COM and EF.SOD ---

Outcome PassportRead::select_com() {
  start_timing();
  return select_file(TQ_EF_COM, kSelectCom) < 0 ? select_sod() : Outcome::go_on();
}

Outcome PassportRead::select_sod() {
  return failed_unless_sent(select_file(TQ_EF_SOD, kSelectSod));
}

// Even when EF.SOD has been asked for instead, the READ BINARY follows.
Outcome PassportRead::on_com_selected() {
  std::array<uint8_t, TQ_CARD_ANSWER_MAX> data{};
  if (open_answer(data) < 0) {
    const Outcome instead = select_sod();
    if (!instead.goes_on()) return instead;
  }
  return read_first_bytes(kReadCom) < 0 ? select_sod() : Outcome::go_on();
}

Outcome PassportRead::on_com_data() {
  const int32_t rc = keep_file_data(TQ_EF_COM, kReadCom);
  if (rc > 0) return Outcome::go_on();
  if (rc < 0) return failed_unless_sent(select_file(TQ_EF_SOD, kSelectSod, true));
  stop_timing(timing_.readTime);
  const PassportFileRecord& com = *files_.find(TQ_EF_COM);
  const int32_t count =
      get_passport_files_IDS_COM(com.data, com.received, data_groups_.data(), TQ_DATA_GROUPS_MAX);
  num_data_groups_ = count < 0 ? 0 : static_cast<uint32_t>(count);
  start_timing();
  return select_sod();
}

Outcome PassportRead::on_sod_selected() {
  std::array<uint8_t, TQ_CARD_ANSWER_MAX> data{};
  if (int32_t rc = open_answer(data); rc < 0) return Outcome::end_with(selection_failure(rc));
  return failed_unless_sent(read_first_bytes(kReadSod));
}

Outcome PassportRead::on_sod_data() {
  const int32_t rc = keep_file_data(TQ_EF_SOD, kReadSod);
  if (rc < 0) return Outcome::end_with(rc);
  if (rc > 0) return Outcome::go_on();
  stop_timing(timing_.readTime);
  if (num_data_groups_ == 0) {
    const PassportFileRecord& sod = *files_.find(TQ_EF_SOD);
    const int32_t count =
        get_passport_files_IDS_SOD(sod.data, sod.received, data_groups_.data(), TQ_DATA_GROUPS_MAX);
    if (count < 1) return Outcome::end_with(TQ_CARD_FAILED);
    num_data_groups_ = static_cast<uint32_t>(count);
  }
  order_data_groups();
  current_ = 0;
  return select_data_group();
}

// --- the data groups ---

// The first files in their order, then the others in the chip's, each once. DG2 is left out when only the
// text is wanted.
void PassportRead::order_data_groups() {
  std::array<uint32_t, TQ_DATA_GROUPS_MAX> ordered{};
  size_t count = 0;
  const std::span<const uint32_t> listed = std::span(data_groups_).first(num_data_groups_);
  const auto has = [](std::span<const uint32_t> ids, uint32_t id) {
    return std::find(ids.begin(), ids.end(), id) != ids.end();
  };
  for (const uint16_t id : kFirstFiles) {
    if (has(listed, id)) ordered[count++] = id;
  }
  for (const uint32_t id : listed) {
    if (!has(std::span(ordered).first(count), id)) ordered[count++] = id;
  }
  const auto end = ordered.begin() + static_cast<ptrdiff_t>(count);
  const auto kept = cfg_.readMode == 1 ? std::remove(ordered.begin(), end, uint32_t{TQ_EF_DG2}) : end;
  std::copy(ordered.begin(), kept, std::begin(data_groups_));
  num_data_groups_ = static_cast<uint32_t>(kept - ordered.begin());
}

uint16_t PassportRead::current_file() const {
  return current_ < num_data_groups_ ? static_cast<uint16_t>(data_groups_[current_]) : uint16_t{0};
}

uint16_t PassportRead::last_core_file() const {
  return cfg_.readMode == 1 ? TQ_EF_DG1 : TQ_EF_DG2;
}

Outcome PassportRead::select_data_group() {
  const uint16_t id = current_file();
  if (id == 0 || (!has_row(id) && files_.full())) return Outcome::end_with(TQ_CARD_FAILED);
  if (is_core(id)) start_timing();
  return failed_unless_sent(select_file(id, kSelectDataGroup));
}

Outcome PassportRead::select_next_data_group() {
  if (current_ + 1 >= num_data_groups_) return have_files_decoded();
  ++current_;
  return select_data_group();
}

Outcome PassportRead::on_data_group_selected() {
  const uint16_t id = current_file();
  if (id == 0) return Outcome::end_with(TQ_CARD_FAILED);
  std::array<uint8_t, TQ_CARD_ANSWER_MAX> data{};
  const int32_t rc = open_answer(data);
  if (rc >= 0) return failed_unless_sent(read_first_bytes(kReadDataGroup));
  if (is_core(id)) return Outcome::end_with(selection_failure(rc));
  return files_.append(id, cfg_.lastStatusWord) != nullptr ? select_next_data_group()
                                                           : Outcome::end_with(TQ_CARD_FAILED);
}

// After a failure of a file that the read can do without, the application may hand over another answer.
Outcome PassportRead::on_data_group_data() {
  const uint16_t id = current_file();
  if (id == 0) return Outcome::end_with(TQ_CARD_FAILED);
  const int32_t rc = keep_file_data(id, kReadDataGroup);
  if (rc < 0) return is_core(id) ? Outcome::end_with(rc) : Outcome::go_on();
  if (rc > 0) return Outcome::go_on();
  if (is_core(id)) stop_timing(timing_.readTime);
  return id == last_core_file() && has_row(TQ_EF_DG15) ? authenticate_actively() : select_next_data_group();
}

// ICAO Doc 9303-11 section 6.1; the server judges the answer.
Outcome PassportRead::authenticate_actively() {
  if (!draw_random(cfg_, aa_challenge_.bytes())) return Outcome::end_with(TQ_FAILED);
  send_protected(cfg_, channel_, {{0x00, 0x88, 0x00, 0x00}, aa_challenge_.bytes(), kAnyLen},
                 kInternalAuthenticate);
  aa_sent_ = true;
  return Outcome::go_on();
}

Outcome PassportRead::on_internal_authenticate() {
  const int32_t n = open_answer(aa_answer_.bytes());
  aa_len_ = static_cast<size_t>(std::max(n, 0));
  return select_next_data_group();
}

Outcome PassportRead::have_files_decoded() {
  if (int32_t rc = tq_socket_connect(&cfg_); rc < 0)
    return Outcome::end_with(rc == TQ_CONNECT_DENIED ? rc : int32_t{TQ_CONNECT_FAILED});
  const PassportContent content = {files_.rows(), aa_answer_.bytes().first(aa_len_), aa_challenge_.bytes(),
                                   timing_.bacTime, timing_.readTime};
  const int32_t rc = decode_on_server(cfg_, work_key_.bytes(), token_.bytes(), content, result_);
  write_status_text(files_.rows(), timing_.statusText);
  return Outcome::end_with(rc);
}

// --- what the steps are made of ---

int32_t PassportRead::check_answer(std::span<uint8_t> out) {
  return tq_read_card_anlysis(&cfg_, answer_.data.data(), answer_.length, out.data(),
                              static_cast<uint32_t>(out.size()));
}

int32_t PassportRead::open_answer(std::span<uint8_t> out) {
  return tq::open_answer(cfg_, channel_, answer_.bytes(), out);
}

int32_t PassportRead::select_file(uint16_t file_id, uint8_t step, bool with_le) {
  return send_select(cfg_, channel_, file_id, step, with_le);
}

int32_t PassportRead::read_first_bytes(uint8_t step) {
  return send_read(cfg_, channel_, 0, kFirstChunk, step);
}

int32_t PassportRead::keep_file_data(uint16_t file_id, uint8_t step) {
  return read_next(cfg_, channel_, files_, answer_.bytes(), file_id, step);
}

// --- timing, when the server wants it ---

void PassportRead::start_timing() {
  if (timing_wanted()) timing_.startTime = now();
}

// Adds the time since the start to `sum`. False when there was none.
bool PassportRead::stop_timing(uint32_t& sum) {
  if (!timing_wanted()) return false;
  timing_.endTime = now();
  if (timing_.endTime <= timing_.startTime) return false;
  sum += static_cast<uint32_t>(elapsed(timing_.endTime, timing_.startTime));
  return true;
}

}  // namespace tq
