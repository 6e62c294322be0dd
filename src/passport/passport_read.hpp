// The worker of one passport read: a table of steps, one for each number that an answer can carry.
#pragma once

#include <cstdint>
#include <span>

#include "core/session/card_read.hpp"
#include "passport/mutual_authentication.hpp"
#include "passport/passport_session_record.h"

namespace tq {

static_assert(sizeof(MrzFields) <= kMaxReadInput);

class PassportRead final : public CardRead {
 public:
  // The session's input is the MrzFields.
  explicit PassportRead(ReadSession& session) : CardRead(session) {}
  ~PassportRead() override;

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

  Outcome read_com();
  Outcome read_sod();
  Outcome read_data_group();
  Outcome read_next_data_group();
  Outcome authenticate_actively();
  Outcome have_files_decoded();
  void order_data_groups();

  int32_t check_answer(std::span<uint8_t> out);
  int32_t open_answer(std::span<uint8_t> out);
  int32_t select_file(uint16_t file_id, uint8_t step, bool with_le = false);
  int32_t send_protected(std::span<const uint8_t> command, uint8_t step);
  int32_t read_first_bytes(uint8_t step);
  int32_t keep_file_data(uint16_t file_id, uint8_t step);
  int32_t exchange(int32_t kind);
  bool has_row(uint16_t file_id) const;
  bool add_failed_row(uint16_t file_id);
  void draw(std::span<uint8_t> out);

  uint16_t current_file() const;
  uint16_t last_core_file() const;

  void start_timing();
  bool stop_timing(uint32_t& sum);

  PassportSession s_{};
};

}  // namespace tq
