// The answers of the card-authentication commands. Choices: frame as it is, content sealed as the inner
// frame, or as the data of a good inner frame; command; room.
#include "harness.hpp"
#include "protocol/card_auth.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace fuzz;
  Choices choices(data, size);
  const uint8_t mode = choices.one_of<uint8_t>({0, 1, 2});
  const auto command = choices.one_of<uint32_t>({0x5001, 0x5012, 0x5022, 0x5032});
  const uint8_t room = choices.next();
  const View content = choices.content();
  if (content.size() > 60000) return 0;

  const uint32_t inner = command == 0x5032 ? 0x5022 : command;
  const Bytes secret = mode == 2 ? secret_frame(inner, content) : Bytes(content.begin(), content.end());
  const Bytes built = response_frame(0x70, command, 0xAA, 8, seal(secret));
  Block frame(mode == 0 ? content : View(built));
  Block out(room == 0xFF ? size_t{frame.size()} : size_t{room});
  const int32_t rc =
      output_auth_cmd_analysis(frame.data(), frame.size(), command, work_key(), out.data(), out.size());
  const uint32_t prefix = command == 0x5012 ? 0 : 7;
  if (rc < 0) {
    require_status(rc);
  } else {
    require(static_cast<uint32_t>(rc) > prefix && static_cast<uint32_t>(rc) <= out.size());
    require(prefix == 0 || (out.data()[0] == 0x00 && out.data()[4] == 0x0A && out.data()[5] == 0xF0));
  }
  if (mode == 2 && !content.empty() && out.size() >= 8) {
    require((rc >= 0) == (content.size() + prefix <= out.size()));
    require(rc < 0 || std::memcmp(out.data() + prefix, content.data(), content.size()) == 0);
  }
  return 0;
}
