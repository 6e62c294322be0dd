// The worker of one identity-card read: a table of steps, one for each serial number that an answer can
// carry.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "protocol/card_read.hpp"
#include "protocol/data_decode.h"
#include "util/secret.hpp"

namespace tq {

// A file of the card, filled front to back.
template <size_t N>
struct CardFile {
  std::array<uint8_t, N> data{};
  uint16_t count = 0;

  bool complete() const { return count == N; }
  std::span<const uint8_t> bytes() const { return std::span(data).first(count); }

  // Appends what still fits.
  void append(std::span<const uint8_t> bytes) {
    const size_t n = bytes.size() < N - count ? bytes.size() : N - count;
    for (size_t i = 0; i < n; ++i) data[count++] = bytes[i];
  }
};

struct CardData {
  std::array<uint8_t, TQ_MANAGEMENT_LENGTH> management{};
  CardFile<TQ_FILE_6011_LENGTH> file6011;
  CardFile<TQ_FILE_6012_LENGTH> file6012;
  CardFile<TQ_FILE_6013_LENGTH> file6013;
};

class IdCardRead final : public CardRead {
 public:
  explicit IdCardRead(ReadSession& session) : CardRead(session) {}
  ~IdCardRead() override;

 private:
  using Handler = Outcome (IdCardRead::*)();
  static const Handler kHandlers[];

  Outcome on_reqb();
  Outcome on_attrib();
  Outcome on_application_selected();
  Outcome on_management_data();
  Outcome on_internal_authenticate();
  Outcome on_challenge();
  Outcome on_external_authenticate();
  Outcome on_file_6011_selected();
  Outcome on_file_6011_data();
  Outcome on_file_6012_selected();
  Outcome on_file_6012_data();
  Outcome on_file_6013_selected();
  Outcome on_file_6013_data();

  void send_first_command() override;
  Outcome handle_answer() override;
  void complete_report(MonitorReport& /*report*/) const override {}

  Outcome decode_first_files();
  Outcome decode(uint32_t command);

  int32_t check_answer(std::span<uint8_t> out);
  bool is_empty_too_often(int32_t num_bytes);

  int32_t relay_step(uint32_t command, uint8_t next_serial);
  int32_t exchange_for_card(std::span<const uint8_t> answer, uint32_t command, std::span<uint8_t> buffer);
  int32_t exchange(std::span<uint8_t> buffer, int32_t request_len);

  bool count_card_time();
  void count_file_time();

  CardData card_;
  TqTiming timing_{};
  int64_t last_auth_time_ = 0;
  int64_t server_round_trip_ = 0;
  bool fast_path_ = false;
  std::array<uint8_t, 10> challenge_prefix_{};
  uint32_t num_empty_reads_ = 0;
};

}  // namespace tq
