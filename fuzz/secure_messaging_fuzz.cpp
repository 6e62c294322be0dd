// A protected answer of a passport, against a plain reading of it. Choices: how the content becomes an answer
// (as it is, as objects that get a right MAC, as deciphered blocks, as data); room in groups of four, or in
// place; last byte of the counter.
#include <algorithm>

#include "harness.hpp"
#include "passport/chip_peer.hpp"
#include "passport/secure_messaging.h"

namespace {

using fuzz::Bytes;
using fuzz::require;

constexpr size_t kBlock = 8;

enum Mode : uint8_t { kAsItIs, kObjects, kBlocks, kData };

// What an answer should come to.
struct Meaning {
  bool counted = false;  // it is laid out as a protected answer
  bool authentic = false;
  Bytes blocks{};  // deciphered
};

Meaning meaning_of(const Bytes& given, test::Chip chip) {
  Meaning meaning;
  size_t at = 0;
  const auto has = [&](size_t n) { return n <= given.size() - at; };
  Bytes cryptogram;
  if (has(1) && given[0] == 0x87) {
    if (!has(2)) return meaning;
    const size_t width = given[1] < 0x80 ? 0 : given[1] - size_t{0x80};
    if (given[1] == 0x80 || width > 2 || !has(2 + width)) return meaning;
    const size_t len = width == 0 ? given[1] : fuzz::number(fuzz::View(given).subspan(2, width));
    at = 2 + width;
    if (len < 2 || !has(len) || (len - 1) % kBlock != 0) return meaning;
    cryptogram = test::slice(given, at + 1, at + len);
    at += len;
  }
  if (has(1) && given[at] == 0x99) {
    if (!has(2) || !has(2U + given[at + 1])) return meaning;
    at += 2U + given[at + 1];
  }
  if (!has(2 + kBlock) || given[at] != 0x8E || given[at + 1] != kBlock) return meaning;
  meaning.counted = true;
  chip.count();
  meaning.authentic = chip.mac(test::slice(given, 0, at)) == test::slice(given, at + 2, at + 2 + kBlock);
  if (!cryptogram.empty()) meaning.blocks = chip.deciphered(cryptogram);
  return meaning;
}

// The data before the padding; without any, all up to the last byte that is not zero.
Bytes unpadded(Bytes blocks) {
  while (!blocks.empty() && blocks.back() == 0) blocks.pop_back();
  if (!blocks.empty() && blocks.back() == 0x80) blocks.pop_back();
  return blocks;
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
  const uint8_t* const enc = work_key();
  const uint8_t* const mac = work_key() + 16;
  const test::Chip chip({enc, enc + 16}, {mac, mac + 16}, number(before));
  test::Chip counted = chip;
  counted.count();
  const Bytes after = counted.ssc();

  Bytes blocks(content.begin(), content.end());
  if (mode == kData) blocks = test::padded(blocks);
  if (mode == kBlocks) blocks.resize(blocks.size() / kBlock * kBlock + kBlock);
  Bytes given = mode >= kBlocks ? chip.cryptogram(blocks) + Bytes{0x99, 2, 0x90, 0} : blocks;
  if (mode != kAsItIs) given = test::Chip(chip).answer(given);

  Block ssc{View(before)};
  Block answer{View(given)};
  const bool in_place = room == 0xFF;
  Block separate(in_place ? size_t{0} : size_t{room} * 4);
  Block& out = in_place ? answer : separate;
  const int32_t rc =
      RP_unprotect_apdu(answer.data(), answer.size(), enc, mac, ssc.data(), out.data(), out.size());
  const Meaning meaning = meaning_of(given, chip);
  require(std::memcmp(ssc.data(), (meaning.counted ? after : before).data(), kBlock) == 0);
  require((rc >= 0) == meaning.authentic && rc >= -1);
  if (rc < 0) {
    require(in_place ? std::equal(given.begin(), given.end(), answer.data()) : out.untouched());
    return 0;
  }
  const Bytes plain = unpadded(meaning.blocks);
  require(static_cast<size_t>(rc) == std::min<size_t>(plain.size(), out.size()));
  require(std::equal(out.data(), out.data() + rc, plain.begin()));
  return 0;
}
