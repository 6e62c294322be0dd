// The worker of one passport read: a table of steps, one for each number that an answer can carry.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "core/session/card_read.hpp"
#include "passport/file_table.hpp"
#include "passport/mutual_authentication.hpp"
#include "passport/secure_channel.hpp"
#include "protocol/session_values.hpp"
#include "util/secret.hpp"

namespace tq {

static_assert(sizeof(MrzFields) <= kMaxReadInput);

class PassportRead final : public CardRead {
 public:
  // The session's input is the MrzFields.
  explicit PassportRead(ReadSession& session) : CardRead(session) {}
  ~PassportRead() override { release_business_id(cfg_); }

  // Authenticates, opens the chip, reads its files, has them decoded and reports.
  void run();

 private:
  using Handler = Outcome (PassportRead::*)();
  static const Handler kHandlers[];

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

  Outcome handle_answer() override;
  void report(int32_t final_result);

  Outcome select_com();
  Outcome select_sod();
  Outcome select_data_group();
  Outcome select_next_data_group();
  Outcome authenticate_actively();
  Outcome have_files_decoded();
  void order_data_groups();

  int32_t check_answer(std::span<uint8_t> out);
  int32_t open_answer(std::span<uint8_t> out);
  int32_t select_file(uint16_t file_id, uint8_t step, bool with_le = false);
  int32_t read_first_bytes(uint8_t step);
  int32_t keep_file_data(uint16_t file_id, uint8_t step);
  bool has_row(uint16_t file_id) { return files_.find(file_id) != nullptr; }

  uint16_t current_file() const;
  uint16_t last_core_file() const;

  void start_timing();
  bool stop_timing(uint32_t& sum);

  BasicAccess access_;
  SecureChannel channel_;
  OwnedFileTable files_;
  std::array<uint32_t, TQ_DATA_GROUPS_MAX> data_groups_{};  // in reading order
  uint32_t num_data_groups_ = 0;
  uint32_t current_ = 0;  // index of the data group being read
  Secret<32> work_key_;
  Secret<TQ_PASSPORT_TOKEN_LENGTH> token_;
  Secret<TQ_AA_CHALLENGE_LENGTH> aa_challenge_;
  Secret<TQ_CARD_ANSWER_MAX> aa_answer_;
  size_t aa_len_ = 0;
  bool aa_sent_ = false;
  bool connected_ = false;
  PassportTiming timing_{};
};

}  // namespace tq
