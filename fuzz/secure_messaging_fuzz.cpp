// A protected answer of a passport. Choices: how the content becomes an answer (as it is, as objects that get
// a right MAC, as deciphered blocks, as data); room in groups of four, or in place; last byte of the counter.
#include <algorithm>

#include "chip.hpp"
#include "harness.hpp"
#include "passport/secure_messaging.h"

namespace {

enum Mode : uint8_t { kAsItIs, kObjects, kBlocks, kData };

// Without the status word, which the relay takes.
fuzz::Bytes with_mac(const fuzz::Chip& chip, fuzz::View objects) {
  fuzz::Bytes answer = chip.answer(objects);
  answer.resize(answer.size() - 2);
  return answer;
}

// Objects and their right MAC, whatever comes behind.
bool is_authentic(const fuzz::Chip& chip, fuzz::View given) {
  for (size_t end = 10; end <= given.size(); ++end) {
    if (given[end - 10] != 0x8E || given[end - 9] != fuzz::kBlock) continue;
    const fuzz::Bytes expected = with_mac(chip, given.first(end - 10));
    if (std::equal(expected.begin(), expected.end(), given.begin())) return true;
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace fuzz;
  Choices choices(data, size);
  const auto mode = choices.one_of<Mode>({kAsItIs, kObjects, kBlocks, kData});
  const uint8_t room = choices.next();
  const uint8_t count = choices.next();
  const View content = choices.content();
  if (content.size() > 2000) return 0;

  const Bytes before = Bytes(7, 0xFF) + Bytes{count};
  const Bytes after = next_counter(before);
  const uint8_t* const enc = work_key();
  const uint8_t* const mac = work_key() + 16;
  const Chip chip(enc, mac, before.data());

  Bytes blocks(content.begin(), content.end());
  if (mode == kData) blocks = padded(content);
  if (mode == kBlocks) blocks.resize(blocks.size() / kBlock * kBlock + kBlock);
  Bytes given = mode >= kBlocks ? chip.cryptogram(blocks) + element(0x99, kSuccess) : blocks;
  if (mode != kAsItIs) given = with_mac(chip, given);

  Block ssc{View(before)};
  Block answer{View(given)};
  const bool in_place = room == 0xFF;
  Block separate(in_place ? size_t{0} : size_t{room} * 4);
  Block& out = in_place ? answer : separate;
  const int32_t rc =
      RP_unprotect_apdu(answer.data(), answer.size(), enc, mac, ssc.data(), out.data(), out.size());
  const bool advanced = std::memcmp(ssc.data(), after.data(), kBlock) == 0;
  require(rc >= -1 && rc <= static_cast<int32_t>(out.size()));
  require(advanced || std::memcmp(ssc.data(), before.data(), kBlock) == 0);
  if (rc < 0) {
    require(in_place ? std::equal(given.begin(), given.end(), answer.data()) : out.untouched());
    require(mode <= kObjects);  // whose layout may be wrong, or show a MAC too early
    return 0;
  }
  require(advanced && is_authentic(chip, given));
  if (mode >= kBlocks) require(std::memcmp(out.data(), blocks.data(), static_cast<size_t>(rc)) == 0);
  if (mode == kData) require(static_cast<size_t>(rc) == std::min<size_t>(content.size(), out.size()));
  return 0;
}
