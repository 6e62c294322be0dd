// The answer to the server authentication, beside a reference that takes it apart by itself. Choices: frame
// as it is, content sealed as the decrypted block, or the same with its length and checksum put right;
// command; compact form; opaque bytes in front of the block; route.
#include "harness.hpp"
#include "protocol/server_authentication.h"
#include "util/memory.h"

namespace {

using namespace fuzz;

size_t checksum_at(View block, uint32_t command) {
  return command == 0x7100 ? 18 : block.size() < 20 ? block.size() : 37 + size_t{block[19]};
}

void put_right(Bytes& block, uint32_t command) {
  if (block.size() < 19 || block.size() > 0xFFFF) return;
  const Bytes length = test::be(block.size(), 2);
  std::copy(length.begin(), length.end(), block.begin());
  const size_t at = checksum_at(block, command);
  if (at < block.size()) block[at] = sum(View(block).first(at));
}

// What is taken over from an answer; the checksum comes last, so a wrong one leaves key and stick-card id in
// place.
struct Answer {
  int32_t code = -1;
  Bytes key = bytes_of({work_key(), 16});
  Bytes stick = Bytes(16, 0x57);
  std::optional<Bytes> id = {};
  uint8_t timing = 0;
};

Answer reference(View frame, uint8_t header, uint32_t command, bool compact) {
  Answer answer;
  const Opened opened = open_response(frame, header, command, 0xAA);
  answer.code = std::min(opened.code, 0);
  if (answer.code < 0) return answer;
  answer.code = -1;
  const size_t opaque = opened.parameter - 8;
  if (opaque >= opened.payload.size()) return answer;
  const std::optional<Bytes> block = unseal(View(opened.payload).subspan(opaque));
  if (!block) return answer;
  if (compact) {
    if (block->size() == 2 && block->front() == block->back()) answer.code = block->front();
    return answer;
  }
  if (block->size() < 19 || number(View(*block).first(2)) != block->size()) return answer;
  answer.key = test::slice(*block, 2, 18);
  const size_t at = checksum_at(*block, command);
  if (command == 0x7500) {
    if (block->size() < 20 || at > block->size()) return answer;
    const Bytes id = test::slice(*block, 20, at - 17);
    if (std::find(id.begin(), id.end(), 0) != id.end()) return answer;
    answer.stick = test::slice(*block, at - 17, at - 1);
    answer.timing = (*block)[at - 1] >> 4;
    answer.id = id;
  }
  if (at < block->size() && (*block)[at] == sum(View(*block).first(at))) {
    answer.code = 0;
  } else {
    answer.id.reset();
  }
  return answer;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Choices choices(data, size);
  const auto mode = choices.one_of<uint8_t>({0, 1, 2});
  const auto command = choices.one_of<uint32_t>({0x7500, 0x7100});
  const uint8_t compact = choices.next() % 2;
  const uint8_t opaque = choices.next();
  const uint8_t route = choices.next() % 3;
  const View content = choices.content();
  if (content.size() > 60000) return 0;

  Bytes block = bytes_of(content);
  if (mode == 2) put_right(block, command);
  const auto header = static_cast<uint8_t>(command == 0x7100 ? 0x70 : 0x70 + route);
  const Bytes built =
      response_frame(header, command, 0xAA, 8U + opaque, Bytes(opaque, 0xAB) + View(seal(block)));
  Block frame(mode == 0 ? content : View(built));
  const Answer wanted = reference(frame.bytes(), header, command, compact != 0 && command == 0x7500);

  SessionConfig cfg{};
  cfg.authMode = compact;
  cfg.serverRoute = route;
  Block key(View(work_key(), 32));
  Block stick(View(Bytes(16, 0x57)));
  require(output_7100_and_7500_analysis(&cfg, frame.data(), frame.size(), command, key.data(),
                                        stick.data()) == wanted.code);
  require(bytes_of(key.bytes()) == wanted.key + View(work_key() + 16, 16) &&
          bytes_of(stick.bytes()) == wanted.stick);
  require((cfg.readBuffer != nullptr) == wanted.id.has_value() && cfg.monitorTiming == wanted.timing);
  if (wanted.id)
    require(std::string(wanted.id->begin(), wanted.id->end()) == reinterpret_cast<char*>(cfg.readBuffer));
  tq_mem_free(cfg.readBuffer);
  return 0;
}
