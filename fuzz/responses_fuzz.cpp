// The decode server's answers, but for that to the authentication. Choices: command; how the content becomes
// an answer (as it is, as the payload, sealed as the payload, sealed as the data of a secret frame); room in
// groups of four, or in place.
#include "harness.hpp"
#include "passport/passport_commands.h"
#include "protocol/card_auth.h"
#include "protocol/command_frame.h"
#include "protocol/data_decode.h"
#include "protocol/secret_frame.h"

namespace {

using namespace fuzz;

struct Parser {
  uint32_t command;
  uint32_t inner;  // the command in the secret frame; 0: there is none
  size_t prefix;   // bytes that are put in front of the data
  int32_t (*parse)(const Parser& p, Block& frame, Block& out);

  bool flagged() const { return command == 0x6102 || command == 0x6113 || command == 0x7202; }
  bool is_passports() const { return command == 0x7201 || command == 0x7202; }
  uint8_t header() const { return is_passports() ? 0x72 : 0x70; }
  uint8_t type() const { return flagged() ? 0x99 : 0xAA; }
};

int32_t frame_alone(const Parser& p, Block& frame, Block& out) {
  uint32_t parameter = 0;
  const int32_t rc = output_command_anlysis(frame.data(), frame.size(), p.header(), p.command, &parameter,
                                            p.type(), work_key(), out.data(), out.size());
  require(parameter <= 0xFFFF && (rc < 0 || parameter >= 8));
  return rc;
}
int32_t secret_alone(const Parser& p, Block& frame, Block& out) {
  return output_secret_command_analysis(frame.data(), frame.size(), p.command, out.data(), out.size());
}
int32_t authentication(const Parser& p, Block& frame, Block& out) {
  return output_auth_cmd_analysis(frame.data(), frame.size(), p.command, work_key(), out.data(), out.size());
}
int32_t decoded(const Parser& p, Block& frame, Block& out) {
  return output_data_decode_analysis(frame.data(), frame.size(), p.command, work_key(), out.data(),
                                     out.size());
}
int32_t started(const Parser&, Block& frame, Block& out) {
  return output_7201_cmd_analysis(frame.data(), frame.size(), work_key(), out.data(), out.size());
}
int32_t files(const Parser&, Block& frame, Block& out) {
  return output_7202_cmd_analysis(frame.data(), frame.size(), work_key(), out.data(), out.size());
}

constexpr Parser kParsers[] = {
    {0x7500, 0, 0, frame_alone},
    {0x5012, 0, 0, frame_alone},
    {0x6102, 0, 1, frame_alone},
    {0x5022, 0, 0, secret_alone},
    {0x7201, 0, 0, secret_alone},
    {0x5001, 0x5001, 7, authentication},
    {0x5012, 0x5012, 0, authentication},
    {0x5032, 0x5022, 7, authentication},
    {0x6002, 0x6002, 0, decoded},
    {0x6102, 0, 1, decoded},
    {0x6113, 0, 1, decoded},
    {0x7201, 0, 0, started},
    {0x7202, 0, 1, files},
};

enum Mode : uint8_t { kAsItIs, kPayload, kSealed, kSecret };

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Choices choices(data, size);
  const Parser& p = kParsers[choices.next() % std::size(kParsers)];
  const auto mode = choices.one_of<Mode>({kAsItIs, kPayload, kSealed, kSecret});
  const uint8_t room = choices.next();
  const View content = choices.content();
  if (content.size() > 60000) return 0;

  const uint32_t inner = p.inner != 0 ? p.inner : p.command;
  const Bytes secret = mode == kSecret ? secret_frame(inner, content) : Bytes(content.begin(), content.end());
  Bytes payload = mode == kPayload || p.command == 0x7500 ? secret : seal(secret);
  if (p.flagged() && mode != kPayload) payload.insert(payload.begin(), 1);
  const bool alone = p.parse == secret_alone;
  const Bytes built = alone ? secret : response_frame(p.header(), p.command, p.type(), 8, payload);
  Block frame(mode == kAsItIs ? content : View(built));
  const bool in_place = room == 0xFF && p.parse != started;
  Block separate(in_place ? size_t{0} : size_t{room} * 4);
  Block& out = in_place ? frame : separate;
  const size_t capacity = out.size();
  const int32_t rc = p.parse(p, frame, out);

  const bool clears = p.parse == decoded && p.flagged();
  if (rc < 0) {
    require_status(rc);
    require(in_place || p.inner != 0 || alone || out.untouched());
  } else {
    require(static_cast<size_t>(rc) < frame.size() + p.prefix &&
            (clears || static_cast<size_t>(rc) <= capacity));
  }
  // What was put in as it should be comes back, where there is room.
  const bool in_secret = p.inner != 0 || alone;
  const bool may_be_empty = !in_secret && p.command != 0x7500;
  const size_t wanted = content.size() + p.prefix;
  if (mode != (in_secret ? kSecret : kSealed) || (content.empty() && !may_be_empty)) return 0;
  if (capacity < std::max(wanted, payload.size())) return 0;
  require(static_cast<size_t>(rc) == wanted);
  require(content.empty() || std::memcmp(out.data() + p.prefix, content.data(), content.size()) == 0);
  return 0;
}
