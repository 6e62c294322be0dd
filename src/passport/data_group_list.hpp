// The data groups of a passport in the order in which they are read.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "passport/passport_session_record.h"

namespace tq {

// A read cannot do without these.
constexpr bool is_core(uint16_t file_id) {
  return file_id == TQ_EF_DG1 || file_id == TQ_EF_DG2;
}

class DataGroupList {
 public:
  // The identifiers that EF.COM names; none when it is malformed.
  void take_from_com(std::span<const uint8_t> com);

  // Those that EF.SOD has hashes of, unless there are some already. False when there are none at all.
  [[nodiscard]] bool take_from_sod(std::span<const uint8_t> sod);

  // DG15, DG11, DG1 and DG2 come first, as far as they are listed, then the others in the chip's order, each
  // once. The first of them becomes the current one.
  void put_in_order(bool with_photo);

  // 0 when there is none.
  uint16_t current() const { return current_ < num_ ? ids_[current_] : uint16_t{0}; }

  // Goes on to the next. False at the end.
  [[nodiscard]] bool advance();

 private:
  void take(const uint32_t* ids, int32_t num);

  std::array<uint16_t, TQ_DATA_GROUPS_MAX> ids_{};
  size_t num_ = 0;
  size_t current_ = 0;
};

}  // namespace tq
