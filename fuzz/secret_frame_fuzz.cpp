// The decrypted inner frame. Choices: frame as it is or built around the content, command, room.
#include "harness.hpp"
#include "protocol/secret_frame.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace fuzz;
  Choices choices(data, size);
  const bool build = choices.next() % 2 == 1;
  const auto command = choices.one_of<uint32_t>({0x5022, 0x6002, 0x7201});
  const uint8_t room = choices.next();
  const View content = choices.content();
  if (content.size() > 60000) return 0;

  const Bytes built = secret_frame(command, content);
  Block frame(build ? View(built) : content);
  Block out(room == 0xFF ? size_t{frame.size()} : size_t{room} * 4);
  const int32_t rc =
      output_secret_command_analysis(frame.data(), frame.size(), command, out.data(), out.size());
  require(rc == -1 || (rc >= 1 && static_cast<uint32_t>(rc) <= out.size() &&
                       static_cast<size_t>(rc) + 8 + length_width(command) == frame.size()));
  if (build) {
    require((rc >= 0) == (!content.empty() && content.size() <= out.size()));
    require(rc < 0 || std::memcmp(out.data(), content.data(), content.size()) == 0);
    require(rc >= 0 || out.untouched());
  }
  return 0;
}
