// The answers of the decode commands. Choices: frame as it is, content sealed as the payload, or as what the
// command delivers; command; room.
#include "harness.hpp"
#include "protocol/data_decode.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace fuzz;
  Choices choices(data, size);
  const uint8_t mode = choices.one_of<uint8_t>({0, 1, 2});
  const auto command = choices.one_of<uint32_t>({0x6002, 0x6102, 0x6113});
  const uint8_t room = choices.next();
  const View content = choices.content();
  if (content.size() > 60000) return 0;

  const bool flagged = command != 0x6002;
  Bytes payload = seal(mode == 2 && !flagged ? View(secret_frame(command, content)) : content);
  if (flagged) payload.insert(payload.begin(), mode == 2 ? 1 : 0);
  const Bytes built = response_frame(0x70, command, flagged ? 0x99 : 0xAA, 8, payload);
  Block frame(mode == 0 ? content : View(built));
  Block out(room == 0xFF ? size_t{frame.size()} : size_t{room} * 4);
  const int32_t rc =
      output_data_decode_analysis(frame.data(), frame.size(), command, work_key(), out.data(), out.size());
  if (rc < 0) {
    require_status(rc);
    if (flagged) require(out.untouched());
    return 0;
  }
  require(rc >= 1 && static_cast<uint32_t>(rc) < frame.size());
  require(flagged || static_cast<uint32_t>(rc) <= out.size());
  const bool fits = static_cast<uint32_t>(rc) <= out.size();
  if (mode == 2 && fits) {  // what was sealed comes back
    require(static_cast<size_t>(rc) == content.size() + (flagged ? 1 : 0));
    require(content.empty() ||
            std::memcmp(out.data() + (flagged ? 1 : 0), content.data(), content.size()) == 0);
  }
  if (flagged && !fits) {
    for (const uint8_t byte : out.bytes()) require(byte == 0);
  }
  return 0;
}
