// The answers to 0x7201 and 0x7202. Choices: frame as it is, content sealed as the payload, or the content as
// the payload; command; room, or in place.
#include "harness.hpp"
#include "passport/passport_commands.h"

namespace {

constexpr size_t kLeastStartFrame = 14;
constexpr size_t kLeastFilesFrame = 13;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace fuzz;
  Choices choices(data, size);
  const uint8_t mode = choices.one_of<uint8_t>({0, 1, 2});
  const auto command = choices.one_of<uint32_t>({0x7201, 0x7202});
  const uint8_t room = choices.next();
  const View content = choices.content();
  if (content.size() > 60000) return 0;

  const bool starts = command == 0x7201;
  Bytes payload = mode == 1 ? seal(content) : Bytes(content.begin(), content.end());
  if (!starts && mode == 1) payload.insert(payload.begin(), 1);
  const Bytes built = response_frame(0x72, command, starts ? 0xAA : 0x99, 8, payload);
  Block frame(mode == 0 ? content : View(built));
  const bool in_place = room == 0xFF && !starts;
  Block separate(in_place ? size_t{0} : size_t{room} * (starts ? 1 : 4));
  Block& out = in_place ? frame : separate;
  const int32_t rc =
      starts ? output_7201_cmd_analysis(frame.data(), frame.size(), work_key(), out.data(), out.size())
             : output_7202_cmd_analysis(frame.data(), frame.size(), work_key(), out.data(), out.size());
  if (rc < 0) {
    require_status(rc);
    if (!in_place) require(out.untouched());
    const size_t taken = content.size() + (starts ? 0 : 1);
    require(mode != 1 || payload.size() > out.size() || taken > out.size());  // nothing else is wrong with it
    return 0;
  }
  const auto len = static_cast<size_t>(rc);
  require(len <= out.size() && built.size() > len);
  require(mode != 0 || content.size() >= (starts ? kLeastStartFrame : kLeastFilesFrame));
  if (starts) {
    for (size_t i = len; i < out.size(); ++i) require(out.data()[i] == 0);
  }
  const size_t flag = starts ? 0 : 1;
  if (mode == 1) {  // what was sealed comes back
    require(len == content.size() + flag && (flag == 0 || out.data()[0] == 1));
    require(content.empty() || std::memcmp(out.data() + flag, content.data(), content.size()) == 0);
  }
  if (mode == 2 && !starts && content[0] != 1) {  // in plain
    require(len == content.size() && std::memcmp(out.data(), content.data(), len) == 0);
  }
  return 0;
}
