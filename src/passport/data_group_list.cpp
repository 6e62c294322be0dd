#include "passport/data_group_list.hpp"

#include <algorithm>

#include "passport/data_groups.h"

namespace tq {
namespace {

constexpr uint16_t kFirstFiles[] = {TQ_EF_DG15, TQ_EF_DG11, TQ_EF_DG1, TQ_EF_DG2};

bool has(std::span<const uint16_t> ids, uint16_t id) {
  return std::find(ids.begin(), ids.end(), id) != ids.end();
}

}  // namespace

void DataGroupList::take_from_com(std::span<const uint8_t> com) {
  std::array<uint32_t, TQ_DATA_GROUPS_MAX> ids{};
  take(ids.data(), get_passport_files_IDS_COM(com.data(), static_cast<uint32_t>(com.size()), ids.data(),
                                              TQ_DATA_GROUPS_MAX));
}

bool DataGroupList::take_from_sod(std::span<const uint8_t> sod) {
  if (num_ > 0) return true;
  std::array<uint32_t, TQ_DATA_GROUPS_MAX> ids{};
  take(ids.data(), get_passport_files_IDS_SOD(sod.data(), static_cast<uint32_t>(sod.size()), ids.data(),
                                              TQ_DATA_GROUPS_MAX));
  return num_ > 0;
}

void DataGroupList::take(const uint32_t* ids, int32_t num) {
  num_ = static_cast<size_t>(std::max(num, 0));
  std::transform(ids, ids + num_, ids_.begin(), [](uint32_t id) { return static_cast<uint16_t>(id); });
}

void DataGroupList::put_in_order(bool with_photo) {
  const auto chips_order = ids_;
  const std::span<const uint16_t> listed = std::span(chips_order).first(num_);
  num_ = 0;
  current_ = 0;
  const auto add = [&](uint16_t id) {
    if (id == TQ_EF_DG2 && !with_photo) return;
    if (!has(std::span(ids_).first(num_), id)) ids_[num_++] = id;
  };
  for (const uint16_t id : kFirstFiles) {
    if (has(listed, id)) add(id);
  }
  for (const uint16_t id : listed) add(id);
}

bool DataGroupList::advance() {
  if (current_ + 1 >= num_) return false;
  ++current_;
  return true;
}

}  // namespace tq
