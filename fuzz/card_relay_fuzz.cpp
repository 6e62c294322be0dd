// A card's answer, against a plain reading of its end. Choice: room for its data.
#include "core/session/card_relay.h"
#include "harness.hpp"

namespace {

struct Judgement {
  int32_t code = TQ_FAILED;
  uint32_t status = 0x5A;
  size_t data_len = 0;
};

Judgement judgement_of(fuzz::View a, size_t room, uint32_t status_before) {
  const size_t n = a.size();
  const auto ends = [a, n](std::initializer_list<uint8_t> end) {
    return n >= end.size() &&
           std::equal(end.begin(), end.end(), a.end() - static_cast<ptrdiff_t>(end.size()));
  };
  if (n == 0) return {TQ_NO_CARD_ANSWER, status_before};
  if (n == 1)
    return {a[0] == 2 ? TQ_CARD_FAILED : a[0] == 0 ? TQ_NO_CARD_ANSWER : TQ_FAILED, uint32_t{a[0]} << 8};
  if (ends({0x90, 0x00}) || ends({0x90, 0x00, 0x00})) {
    const size_t len = n - (ends({0x90, 0x00}) ? 2 : 3);
    if (len > room) return {TQ_FAILED, status_before};
    return {static_cast<int32_t>(len), 0x9000, len};
  }
  Judgement j;
  j.status = uint32_t{a[0]} << 8 | a[1];
  const bool refused = j.status == 0x6986 && (n == 2 || (n == 3 && a[2] == 0));
  j.code = refused ? TQ_CARD_REFUSED : j.status == 0 ? TQ_NO_CARD_ANSWER : TQ_FAILED;
  if (n < 4) return j;
  size_t last = n - 1;
  while (last > 0 && a[last] == 0) --last;
  j.status = j.status << 16 | (last == n - 1 ? uint32_t{a[n - 2]} << 8 | a[n - 1] : uint32_t{a[last]} << 8);
  return j;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace fuzz;
  Choices choices(data, size);
  const uint8_t room = choices.next();
  Block answer(choices.content());
  Block out(room == 0xFF ? size_t{answer.size()} : size_t{room});
  SessionConfig cfg{};
  cfg.lastCommandLength = 5;
  cfg.lastStatusWord = 0xEEEE;
  const Judgement expected = judgement_of(answer.bytes(), out.size(), cfg.lastStatusWord);
  const int32_t rc = tq_read_card_anlysis(&cfg, answer.data(), answer.size(),
                                          out.size() == 0 ? nullptr : out.data(), out.size());
  require(rc == expected.code && cfg.lastStatusWord == expected.status);
  require(cfg.lastCommandLength == (rc < 0 ? 5 : 0) && (rc >= 0 || out.untouched()));
  require(std::equal(out.data(), out.data() + expected.data_len, answer.data()));
  return 0;
}
