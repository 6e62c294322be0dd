// A card's answer. Choice: room for its data.
#include "core/session/card_relay.h"
#include "harness.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace fuzz;
  Choices choices(data, size);
  const uint8_t room = choices.next();
  Block answer(choices.content());
  Block out(room == 0xFF ? size_t{answer.size()} : size_t{room});
  SessionConfig cfg{};
  cfg.lastCommandLength = 5;
  const int32_t rc = tq_read_card_anlysis(&cfg, answer.data(), answer.size(), out.data(), out.size());
  if (rc < 0) {
    require(rc == TQ_NO_CARD_ANSWER || rc == TQ_CARD_REFUSED || rc == TQ_CARD_FAILED || rc == TQ_FAILED);
    require(out.untouched() && cfg.lastCommandLength == 5);
    return 0;
  }
  const auto n = static_cast<uint32_t>(rc);
  require(n <= out.size() && (n + 2 == answer.size() || n + 3 == answer.size()));
  require(answer.data()[n] == 0x90 && answer.data()[n + 1] == 0x00);
  require(std::memcmp(out.data(), answer.data(), n) == 0);
  require(cfg.lastStatusWord == 0x9000 && cfg.lastCommandLength == 0);
  return 0;
}
