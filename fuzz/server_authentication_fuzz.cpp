// The answer to the server authentication. Choices: frame as it is, content sealed as the decrypted block, or
// the same with its length and checksum put right; command; compact form; opaque bytes in front of the block.
#include "harness.hpp"
#include "protocol/server_authentication.h"
#include "util/memory.h"

namespace {

void put_right(fuzz::Bytes& block, uint32_t command) {
  if (block.size() < 19 || block.size() > 0xFFFF) return;
  block[0] = static_cast<uint8_t>(block.size() >> 8);
  block[1] = static_cast<uint8_t>(block.size());
  const size_t at = command == 0x7100 ? 18 : block.size() < 20 ? block.size() : 37 + size_t{block[19]};
  if (at < block.size()) block[at] = fuzz::sum(fuzz::View(block).first(at));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace fuzz;
  Choices choices(data, size);
  const uint8_t mode = choices.one_of<uint8_t>({0, 1, 2});
  const auto command = choices.one_of<uint32_t>({0x7500, 0x7100});
  const uint8_t compact = choices.next() % 2;
  const uint8_t opaque = choices.next();
  const View content = choices.content();
  if (content.size() > 60000) return 0;

  Bytes block(content.begin(), content.end());
  if (mode == 2) put_right(block, command);
  Bytes payload(opaque, 0xAB);
  const Bytes sealed = seal(block);
  payload.insert(payload.end(), sealed.begin(), sealed.end());
  const Bytes built = response_frame(0x70, command, 0xAA, 8U + opaque, payload);
  Block frame(mode == 0 ? content : View(built));

  SessionConfig cfg{};
  cfg.authMode = compact;
  Block key(View(work_key(), 32));
  Block stick(size_t{16});
  const int32_t rc =
      output_7100_and_7500_analysis(&cfg, frame.data(), frame.size(), command, key.data(), stick.data());
  const bool is_compact = compact != 0 && command == 0x7500;
  if (rc < 0) {
    require_status(rc);
    require(cfg.readBuffer == nullptr);
  } else if (is_compact) {
    require(rc <= 0xFF && cfg.readBuffer == nullptr);
  } else {
    require(rc == 0 && (cfg.readBuffer != nullptr) == (command == 0x7500));
    if (cfg.readBuffer != nullptr) require(std::strlen(reinterpret_cast<char*>(cfg.readBuffer)) <= 255);
  }
  require(cfg.monitorTiming <= 0x0F);
  require(std::memcmp(key.data() + 16, work_key() + 16, 16) == 0);
  tq_mem_free(cfg.readBuffer);
  return 0;
}
