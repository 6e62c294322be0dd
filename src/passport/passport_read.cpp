#include "passport/passport_read.hpp"

#include <algorithm>
#include <array>
#include <iterator>

#include "core/session/card_relay.h"
#include "passport/data_groups.h"
#include "passport/file_reader.h"
#include "passport/passport_commands.h"
#include "protocol/monitor_report.h"
#include "protocol/result_report.h"
#include "protocol/server_authentication.h"
#include "protocol/session_values.hpp"
#include "protocol/tcp_transport.h"
#include "util/byte_cursor.hpp"
#include "util/secret.hpp"
#include "util/system_random.hpp"

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
constexpr uint8_t kReadFirstBytes[] = {0x00, 0xB0, 0x00, 0x00, 0x04};
constexpr uint8_t kInternalAuthenticateHeader[] = {0x00, 0x88, 0x00, 0x00, 0x08};

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

PassportRead::~PassportRead() {
  release_business_id(cfg_);
  for (PassportFileRecord& file : s_.files) {
    if (file.data != nullptr) wipe(file.data, file.received);
    tq_mem_free(file.data);
  }
  wipe(&s_, sizeof s_);
}

void PassportRead::run() {
  begin();
  if (session_.cancelled()) return;
  const int32_t rc = server_authentication(&cfg_, s_.workKey, &delay_, 0, cfg_.stickCardId);
  if (rc < 0) {
    deliver_result(rc);
    return;
  }
  s_.socketOpen = 1;
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
  if (answer_missing() && s_.aaSent == 0) return Outcome::end_with(TQ_NO_CARD_ANSWER);
  log_answer();
  if (answer_.serial >= std::size(kHandlers)) return Outcome::end_with(TQ_OUT_OF_RANGE);
  std::copy(answer_.data.begin(), answer_.data.end(), std::begin(s_.answer));
  return (this->*kHandlers[answer_.serial])();
}

void PassportRead::report(int32_t final_result) {
  if (s_.socketOpen == 0) static_cast<void>(tq_socket_connect(&cfg_));
  monitor_data_parse(&cfg_, s_.workKey, start_time_, final_result, delay_, s_.timing.statusText, 0, s_.token,
                     cfg_.stickCardId);
  if (final_result < 0) result_business_id_parse(&cfg_, &result_);
  release_business_id(cfg_);
  tq_socket_close();
  deliver_result(final_result);
}

// --- Basic Access Control ---

Outcome PassportRead::on_application_selected() {
  std::array<uint8_t, kAnswerRoom> data{};
  if (int32_t rc = check_answer(data); rc < 0) return Outcome::end_with(rc);
  if (stop_timing(s_.timing.bacTime)) ++s_.timing.bacCount;
  if (int32_t rc = exchange(TQ_EXCHANGE_7201); rc < 0) return Outcome::end_with(rc);
  tq_socket_close();
  s_.socketOpen = 0;
  MrzFields mrz;
  const WipeOnExit wipe_mrz(mrz);
  const std::span<uint8_t> mrz_bytes(reinterpret_cast<uint8_t*>(&mrz), sizeof mrz);
  if (!copy_bytes(session_.input(), mrz_bytes) || !derive_document_keys(mrz, s_))
    return Outcome::end_with(TQ_CARD_REFUSED);
  start_timing();
  return passport_rand_number_IC(&cfg_, kChallenge) < 0 ? Outcome::end_silently() : Outcome::go_on();
}

Outcome PassportRead::on_challenge() {
  Secret<kChallengeRoom> data;
  const int32_t n = check_answer(data.bytes());
  if (n == TQ_NO_CARD_ANSWER) return Outcome::end_with(n);
  if (n < static_cast<int32_t>(sizeof s_.rndIC)) return Outcome::end_with(TQ_CARD_REFUSED);
  if (stop_timing(s_.timing.bacTime)) ++s_.timing.bacCount;
  if (s_.timing.bacCount > 0) s_.timing.bacTime /= s_.timing.bacCount;
  std::copy_n(data.data(), sizeof s_.rndIC, s_.rndIC);
  draw(s_.rndIFD);
  draw(s_.kIFD);
  Cryptogram cryptogram{};
  if (!make_cryptogram(s_, cryptogram)) return Outcome::end_with(TQ_CARD_REFUSED);
  const int32_t rc =
      passport_external_auth(&cfg_, cryptogram.e_ifd.data(), cryptogram.m_ifd.data(), kExternalAuthenticate);
  return rc < 0 ? authentication_failure(rc) : Outcome::go_on();
}

Outcome PassportRead::on_external_authenticate() {
  Secret<kAnswerRoom> data;
  const int32_t n = check_answer(data.bytes());
  if (n < 0) return authentication_failure(n);
  if (!derive_session_keys(data.bytes().first(static_cast<size_t>(n)), s_))
    return Outcome::end_with(TQ_CARD_REFUSED);
  return read_com();
}

// --- EF.COM and EF.SOD ---

Outcome PassportRead::read_com() {
  start_timing();
  return select_file(TQ_EF_COM, kSelectCom) < 0 ? read_sod() : Outcome::go_on();
}

Outcome PassportRead::read_sod() {
  return failed_unless_sent(select_file(TQ_EF_SOD, kSelectSod));
}

// Even when EF.SOD has been asked for instead, the READ BINARY follows.
Outcome PassportRead::on_com_selected() {
  std::array<uint8_t, TQ_CARD_ANSWER_MAX> data{};
  if (open_answer(data) < 0) {
    const Outcome instead = read_sod();
    if (!instead.goes_on()) return instead;
  }
  return read_first_bytes(kReadCom) < 0 ? read_sod() : Outcome::go_on();
}

Outcome PassportRead::on_com_data() {
  const int32_t rc = keep_file_data(TQ_EF_COM, kReadCom);
  if (rc > 0) return Outcome::go_on();
  if (rc < 0) return failed_unless_sent(select_file(TQ_EF_SOD, kSelectSod, true));
  stop_timing(s_.timing.readTime);
  const PassportFileRecord& com = s_.files[get_dg_data_sub(s_.files, s_.fileCount, TQ_EF_COM)];
  const int32_t count = get_passport_files_IDS_COM(com.data, com.received, s_.dataGroups, TQ_DATA_GROUPS_MAX);
  s_.dataGroupCount = count < 0 ? 0 : static_cast<uint32_t>(count);
  start_timing();
  return read_sod();
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
  stop_timing(s_.timing.readTime);
  if (s_.dataGroupCount == 0) {
    const PassportFileRecord& sod = s_.files[get_dg_data_sub(s_.files, s_.fileCount, TQ_EF_SOD)];
    const int32_t count =
        get_passport_files_IDS_SOD(sod.data, sod.received, s_.dataGroups, TQ_DATA_GROUPS_MAX);
    if (count < 1) return Outcome::end_with(TQ_CARD_FAILED);
    s_.dataGroupCount = static_cast<uint32_t>(count);
  }
  order_data_groups();
  s_.current = 0;
  return read_data_group();
}

// --- the data groups ---

// The first files in their order, then the others in the chip's, each once. DG2 is left out when only the
// text is wanted.
void PassportRead::order_data_groups() {
  std::array<uint32_t, TQ_DATA_GROUPS_MAX> ordered{};
  size_t count = 0;
  const std::span<const uint32_t> listed = std::span(s_.dataGroups).first(s_.dataGroupCount);
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
  std::copy(ordered.begin(), kept, std::begin(s_.dataGroups));
  s_.dataGroupCount = static_cast<uint32_t>(kept - ordered.begin());
}

uint16_t PassportRead::current_file() const {
  return s_.current < s_.dataGroupCount ? static_cast<uint16_t>(s_.dataGroups[s_.current]) : uint16_t{0};
}

uint16_t PassportRead::last_core_file() const {
  return cfg_.readMode == 1 ? TQ_EF_DG1 : TQ_EF_DG2;
}

Outcome PassportRead::read_data_group() {
  const uint16_t id = current_file();
  if (id == 0 || (!has_row(id) && s_.fileCount == TQ_PASSPORT_FILES_MAX))
    return Outcome::end_with(TQ_CARD_FAILED);
  if (is_core(id)) start_timing();
  return failed_unless_sent(select_file(id, kSelectDataGroup));
}

Outcome PassportRead::read_next_data_group() {
  if (s_.current + 1 >= s_.dataGroupCount) return have_files_decoded();
  ++s_.current;
  return read_data_group();
}

Outcome PassportRead::on_data_group_selected() {
  const uint16_t id = current_file();
  if (id == 0) return Outcome::end_with(TQ_CARD_FAILED);
  std::array<uint8_t, TQ_CARD_ANSWER_MAX> data{};
  const int32_t rc = open_answer(data);
  if (rc >= 0) return failed_unless_sent(read_first_bytes(kReadDataGroup));
  if (is_core(id)) return Outcome::end_with(selection_failure(rc));
  return add_failed_row(id) ? read_next_data_group() : Outcome::end_with(TQ_CARD_FAILED);
}

// After a failure of a file that the read can do without, the application may hand over another answer.
Outcome PassportRead::on_data_group_data() {
  const uint16_t id = current_file();
  if (id == 0) return Outcome::end_with(TQ_CARD_FAILED);
  const int32_t rc = keep_file_data(id, kReadDataGroup);
  if (rc < 0) return is_core(id) ? Outcome::end_with(rc) : Outcome::go_on();
  if (rc > 0) return Outcome::go_on();
  if (is_core(id)) stop_timing(s_.timing.readTime);
  return id == last_core_file() && has_row(TQ_EF_DG15) ? authenticate_actively() : read_next_data_group();
}

// ICAO Doc 9303-11 section 6.1; the server judges the answer.
Outcome PassportRead::authenticate_actively() {
  std::array<uint8_t, sizeof kInternalAuthenticateHeader + TQ_AA_CHALLENGE_LENGTH> command{};
  draw(s_.aaChallenge);
  ByteWriter w(command);
  w.bytes(kInternalAuthenticateHeader);
  w.bytes(s_.aaChallenge);
  send_protected(command, kInternalAuthenticate);
  s_.aaSent = 1;
  return Outcome::go_on();
}

Outcome PassportRead::on_internal_authenticate() {
  const int32_t n = open_answer(s_.aaAnswer);
  s_.aaLength = static_cast<uint16_t>(std::max(n, 0));
  return read_next_data_group();
}

Outcome PassportRead::have_files_decoded() {
  if (int32_t rc = tq_socket_connect(&cfg_); rc < 0)
    return Outcome::end_with(rc == TQ_CONNECT_DENIED ? rc : int32_t{TQ_CONNECT_FAILED});
  const int32_t rc = exchange(TQ_EXCHANGE_7202);
  passport_file_status_text(s_.files, s_.fileCount, s_.timing.statusText);
  return Outcome::end_with(rc);
}

// --- what the steps are made of ---

int32_t PassportRead::check_answer(std::span<uint8_t> out) {
  return tq_read_card_anlysis(&cfg_, s_.answer, answer_.length, out.data(),
                              static_cast<uint32_t>(out.size()));
}

int32_t PassportRead::open_answer(std::span<uint8_t> out) {
  return passport_file_data_anlysis(&cfg_, s_.answer, answer_.length, s_.ksenc, s_.ksmac, s_.ssc, out.data(),
                                    static_cast<uint32_t>(out.size()));
}

int32_t PassportRead::select_file(uint16_t file_id, uint8_t step, bool with_le) {
  return passport_select_file(&cfg_, file_id, step, s_.ksenc, s_.ksmac, s_.ssc, with_le ? 1 : 0);
}

int32_t PassportRead::send_protected(std::span<const uint8_t> command, uint8_t step) {
  return passport_read_file(&cfg_, command.data(), static_cast<uint32_t>(command.size()), step, s_.ksenc,
                            s_.ksmac, s_.ssc, 1);
}

int32_t PassportRead::read_first_bytes(uint8_t step) {
  return send_protected(kReadFirstBytes, step);
}

int32_t PassportRead::keep_file_data(uint16_t file_id, uint8_t step) {
  return passport_file_read_next(&cfg_, answer_.length, file_id, step, &s_, s_.files, &s_.fileCount);
}

int32_t PassportRead::exchange(int32_t kind) {
  return passport_server_exchange(&cfg_, s_.workKey, &result_, kind, s_.token, s_.files, s_.fileCount,
                                  s_.aaAnswer, s_.aaLength, s_.aaChallenge, TQ_AA_CHALLENGE_LENGTH,
                                  &s_.timing);
}

bool PassportRead::has_row(uint16_t file_id) const {
  return get_dg_data_sub(s_.files, s_.fileCount, file_id) >= 0;
}

bool PassportRead::add_failed_row(uint16_t file_id) {
  if (s_.fileCount == TQ_PASSPORT_FILES_MAX) return false;
  PassportFileRecord& row = s_.files[s_.fileCount++];
  row.fileId = file_id;
  row.status = cfg_.lastStatusWord;
  return true;
}

// The documented generator, made unpredictable by the system's.
void PassportRead::draw(std::span<uint8_t> out) {
  create_rand_number(&cfg_, out.data(), static_cast<int32_t>(out.size()));
  Secret<sizeof s_.kIFD> more;
  if (!system_random(more.bytes())) return;
  for (size_t i = 0; i < std::min(out.size(), more.size()); ++i) out[i] ^= more.data()[i];
}

// --- timing, when the server wants it ---

void PassportRead::start_timing() {
  if (timing_wanted()) s_.timing.startTime = now();
}

// Adds the time since the start to `sum`. False when there was none.
bool PassportRead::stop_timing(uint32_t& sum) {
  if (!timing_wanted()) return false;
  s_.timing.endTime = now();
  if (s_.timing.endTime <= s_.timing.startTime) return false;
  sum += static_cast<uint32_t>(elapsed(s_.timing.endTime, s_.timing.startTime));
  return true;
}

}  // namespace tq
