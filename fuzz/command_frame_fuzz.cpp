// The outer frame of every response. Choices: frame as it is or built around the content, command, type byte,
// room.
#include "harness.hpp"
#include "protocol/command_frame.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace fuzz;
  Choices choices(data, size);
  const uint8_t mode = choices.one_of<uint8_t>({0, 1, 2});
  const auto command = choices.one_of<uint32_t>({0x5012, 0x7500, 0x6102, 0x7202});
  const auto type = choices.one_of<uint8_t>({0xAA, 0x99});
  const uint8_t room = choices.next();
  const View content = choices.content();
  if (content.size() > 60000) return 0;

  Bytes payload(content.begin(), content.end());
  if (mode == 2) {  // sealed as the type wants it
    payload = seal(content);
    if (type == 0x99) payload.insert(payload.begin(), 1);
  }
  const Bytes built = response_frame(0x70, command, type, 8, payload);
  Block frame(mode == 0 ? content : View(built));
  const size_t capacity = room == 0xFF ? frame.size() : size_t{room} * 4;
  Block out(capacity);
  uint32_t parameter = 0;
  const int32_t rc = output_command_anlysis(frame.data(), frame.size(), 0x70, command, &parameter, type,
                                            work_key(), out.data(), out.size());
  require(parameter <= 0xFFFF);
  if (rc < 0) {
    require_status(rc);
    require(out.untouched());
  } else {
    require(static_cast<uint32_t>(rc) <= out.size() && static_cast<uint32_t>(rc) < frame.size() &&
            parameter >= 8);
    if (mode == 2 && command != 0x7500) {  // what was sealed comes back
      const size_t flag = type == 0x99 ? 1 : 0;
      require(static_cast<size_t>(rc) == content.size() + flag);
      require(content.empty() || std::memcmp(out.data() + flag, content.data(), content.size()) == 0);
    }
  }
  return 0;
}
