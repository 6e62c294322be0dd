// The worker of one passport read: a table of steps, one for each number that an answer can carry.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>

#include "passport/chip_answer.hpp"
#include "passport/data_group_list.hpp"
#include "passport/file_reader.hpp"
#include "passport/file_table.hpp"
#include "passport/mutual_authentication.hpp"
#include "passport/pace.hpp"
#include "passport/secure_channel.hpp"
#include "protocol/card_read.hpp"
#include "util/secret.hpp"

namespace tq {

static_assert(sizeof(MrzFields) <= kMaxReadInput);

class PassportRead final : public CardRead {
 public:
  // The session's input is the MrzFields.
  explicit PassportRead(ReadSession& session) : CardRead(session) {}

 private:
  using Handler = Outcome (PassportRead::*)();
  static const Handler kHandlers[];

  void send_first_command() override;
  Outcome handle_answer() override;
  void complete_report(MonitorReport& report) const override;

  Outcome on_application_selected();
  Outcome on_challenge();
  Outcome on_external_authenticate();
  Outcome on_com_selected();
  Outcome on_com_data();
  Outcome on_sod_selected();
  Outcome on_sod_data();
  Outcome on_data_group_selected();
  Outcome on_data_group_data();
  Outcome on_internal_authenticate();

  // Of PACE, with the numbers from kFirstPaceStep on.
  static const Handler kPaceHandlers[];
  Outcome handle_pace_answer();
  Outcome on_master_file_selected();
  Outcome on_card_access_selected();
  Outcome on_card_access_data();
  Outcome on_pace_answer();
  Outcome on_application_selected_by_pace();

  // After a refusal: PACE, when that is what the chip wants and has, or else the end with `code`.
  Outcome open_otherwise(const ChipAnswer& refusal, int32_t code);
  Outcome select_card_access();
  Outcome go_on_with_pace(Pace& pace, Pace::Result result);

  [[nodiscard]] bool take_mrz(MrzFields& out) const;
  Outcome start_on_the_server();
  Outcome ask_for_challenge();
  Outcome select_com();
  Outcome select_sod();
  Outcome select_data_group();
  Outcome select_next_data_group();
  Outcome authenticate_actively(uint8_t le);
  Outcome have_files_decoded();

  void judge_answer(ChipAnswer& out, size_t room = kMaxCardAnswer) {
    ChipAnswer::judge(cfg_, answer_.bytes(), out, room);
  }
  void open_answer(ChipAnswer& out) { ChipAnswer::open(cfg_, channel_, answer_.bytes(), out); }

  void count_opening_time();
  void count_reading_time();

  BasicAccess access_;
  bool pace_begun_ = false;
  int32_t code_without_pace_ = 0;  // of the refusal that made the read turn to PACE
  std::optional<Pace> pace_;       // between EF.CardAccess and the token
  bool started_on_server_ = false;
  uint8_t cryptogram_le_ = kCryptogramLen;
  SecureChannel channel_;
  OwnedFileTable files_;
  FileReader reader_{cfg_, channel_, files_};
  DataGroupList data_groups_;
  Secret<TQ_PASSPORT_TOKEN_LENGTH> token_;
  Secret<TQ_AA_CHALLENGE_LENGTH> aa_challenge_;
  ChipAnswer aa_answer_;
  bool has_signature_ = false;
  bool aa_sent_ = false;
  bool aa_asked_again_ = false;

  uint32_t opening_ms_ = 0;   // SELECT application and GET CHALLENGE together
  uint32_t num_opening_ = 0;  // exchanges of these that took any time
  uint32_t reading_ms_ = 0;   // EF.COM, EF.SOD, DG1 and DG2
  std::array<char, TQ_STATUS_TEXT_SIZE> status_text_{};
};

}  // namespace tq
