// The decode server's answers, but for that to the authentication, beside a reference that takes them apart
// by itself. Choices: parser; how the content becomes an answer (as it is, as the payload, sealed as the
// payload, sealed as the data of a secret frame, as it is with length and checksum put right); room in groups
// of four, or in place.
#include "harness.hpp"
#include "passport/passport_commands.h"
#include "protocol/card_auth.h"
#include "protocol/command_frame.h"
#include "protocol/data_decode.h"
#include "protocol/secret_frame.h"

namespace {

using namespace fuzz;

enum Kind : uint8_t { kFrame, kSecretFrame, kCardAuth, kDecode, kStart, kFiles };
enum Mode : uint8_t { kAsItIs, kPayload, kSealed, kSecret, kPutRight };

struct Parser {
  Kind kind;
  uint32_t command;
  uint32_t inner = 0;       // the command in the secret frame; 0: there is none
  const char* prefix = "";  // what the card's next command begins with
  uint32_t least_room = 0;

  bool flagged() const { return command == 0x6102 || command == 0x6113 || command == 0x7202; }
  uint8_t header() const { return command == 0x7201 || command == 0x7202 ? 0x72 : 0x70; }
  uint8_t type() const { return flagged() ? 0x99 : 0xAA; }
};

constexpr Parser kParsers[] = {
    {kFrame, 0x7500},
    {kFrame, 0x5012},
    {kFrame, 0x6102},
    {kSecretFrame, 0x5022, 0x5022},
    {kSecretFrame, 0x7201, 0x7201},
    {kCardAuth, 0x5001, 0x5001, "008800520AF000", 8},
    {kCardAuth, 0x5012, 0x5012, "", 5},
    {kCardAuth, 0x5032, 0x5022, "008200520AF001", 8},
    {kDecode, 0x6002, 0x6002},
    {kDecode, 0x6102},
    {kDecode, 0x6113},
    {kStart, 0x7201},
    {kFiles, 0x7202},
};

int32_t parse(const Parser& p, Block& frame, Block& out, uint32_t& parameter) {
  const auto [in, length, key, to, room] =
      std::tuple(frame.data(), frame.size(), work_key(), out.data(), out.size());
  switch (p.kind) {
    case kFrame:
      return output_command_anlysis(in, length, p.header(), p.command, &parameter, p.type(), key, to, room);
    case kSecretFrame:
      return output_secret_command_analysis(in, length, p.command, to, room);
    case kCardAuth:
      return output_auth_cmd_analysis(in, length, p.command, key, to, room);
    case kDecode:
      return output_data_decode_analysis(in, length, p.command, key, to, room);
    case kStart:
      return output_7201_cmd_analysis(in, length, key, to, room);
    default:
      return output_7202_cmd_analysis(in, length, key, to, room);
  }
}

// What it should come to, room left out of account.
Opened reference(const Parser& p, View frame) {
  const size_t least = p.kind == kStart                           ? 14
                       : p.kind == kFiles                         ? 13
                       : p.kind == kCardAuth || p.kind == kDecode ? 12
                                                                  : 0;
  if (frame.size() < least) return {};
  Opened opened = {0, bytes_of(frame)};
  if (p.kind != kSecretFrame) opened = open_response(frame, p.header(), p.command, p.type());
  if (opened.code < 0 || p.inner == 0) return opened;
  const std::optional<Bytes> data = open_secret(opened.payload, p.inner);
  if (!data) return {};
  const Bytes delivered = test::from_hex(p.prefix) + View(*data);
  return {static_cast<int32_t>(delivered.size()), delivered, opened.parameter};
}

Bytes answer(const Parser& p, Mode mode, View content) {
  const Bytes framed = mode == kSecret ? secret_frame(p.inner != 0 ? p.inner : p.command, bytes_of(content))
                                       : bytes_of(content);
  if (mode == kAsItIs || (p.kind == kSecretFrame && mode != kPutRight)) return framed;
  if (mode == kPutRight) {
    const size_t at = p.kind == kSecretFrame ? 3 : 1;
    const size_t end = p.kind == kSecretFrame ? 3 : 1;  // checksum, and what is behind it
    const size_t width = test::length_width(p.command);
    if (framed.size() < at + width + end) return framed;
    Bytes frame = framed;
    const Bytes length = test::be(frame.size(), width);
    std::copy(length.begin(), length.end(), frame.begin() + static_cast<ptrdiff_t>(at));
    frame[frame.size() - end] = sum(View(frame).subspan(at, frame.size() - at - end));
    return frame;
  }
  Bytes payload = mode == kPayload || p.command == 0x7500 ? framed : seal(framed);
  if (p.flagged() && mode != kPayload) payload.insert(payload.begin(), 1);
  return response_frame(p.header(), p.command, p.type(), 8, payload);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Choices choices(data, size);
  const Parser& p = kParsers[choices.next() % std::size(kParsers)];
  const auto mode = choices.one_of<Mode>({kAsItIs, kPayload, kSealed, kSecret, kPutRight});
  const uint8_t room = choices.next();
  if (choices.content().size() > 60000) return 0;
  const Bytes built = answer(p, mode, choices.content());
  const Opened wanted = reference(p, built);

  Block frame{View(built)};
  const bool in_place = room == 0xFF && p.kind != kStart;
  Block separate(in_place ? size_t{0} : size_t{room} * 4);
  Block& out = in_place ? frame : separate;
  const size_t capacity = out.size();
  uint32_t parameter = 0;
  const int32_t rc = parse(p, frame, out, parameter);
  if (p.kind == kFrame && wanted.code >= 0) require(parameter == wanted.parameter);

  const bool clears = p.kind == kDecode && p.flagged();
  const bool whole_payload =
      p.kind == kFrame || p.kind == kFiles;  // there must be room for it before it is decrypted
  int32_t code = capacity < p.least_room ? -1 : wanted.code;
  if (code >= 0 && !clears) {
    const size_t needed =
        whole_payload ? built.size() - 10 - test::length_width(p.command) : wanted.payload.size();
    if (needed > capacity) code = -1;
  }
  require(rc == code);
  if (code < 0) {
    require(in_place || p.kind == kSecretFrame || out.untouched());
  } else if (static_cast<size_t>(code) <= capacity) {
    require(code == 0 || std::memcmp(out.data(), wanted.payload.data(), wanted.payload.size()) == 0);
  } else {  // told of, but not delivered
    require(std::all_of(out.data(), out.data() + capacity, [](uint8_t byte) { return byte == 0; }));
  }
  return 0;
}
