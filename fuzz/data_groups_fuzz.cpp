// The list of data groups in EF.COM and EF.SOD. Choices: EF.COM, EF.SOD, or content as the hash list of an
// EF.SOD; room for identifiers.
#include "harness.hpp"
#include "passport/data_groups.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace fuzz;
  Choices choices(data, size);
  const uint8_t mode = choices.one_of<uint8_t>({0, 1, 2});
  const uint8_t room = choices.next() % 97;
  const bool is_com = mode == 0;
  const auto walk = is_com ? get_passport_files_IDS_COM : get_passport_files_IDS_SOD;
  const Block file(mode == 2 ? View(security_object(choices.content())) : choices.content());

  const std::unique_ptr<uint32_t[]> ids(new uint32_t[room]());
  const int32_t rc = walk(file.bytes().data(), file.size(), ids.get(), room);
  require(rc >= -1 && rc <= room);
  const std::span<const uint32_t> found(ids.get(), static_cast<size_t>(std::max(rc, 0)));
  for (const uint32_t id : found) require(is_com ? id >= 0x0101 && id <= 0x0110 : id >> 8 == 1);

  // The room changes how many are kept and nothing else.
  uint32_t more[97] = {};
  const int32_t rc_more = walk(file.bytes().data(), file.size(), more, 97);
  require((rc < 0) == (rc_more < 0) && (rc < 0 || rc == std::min<int32_t>(rc_more, room)));
  require(std::equal(found.begin(), found.end(), more));
  require(walk(file.bytes().data(), file.size(), nullptr, room) == std::min(rc, 0));
  return 0;
}
