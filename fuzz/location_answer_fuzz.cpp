// The location server's answer, compared with a plain reading of its rules. Choices: what the content is (a
// whole frame; the payload of a good frame; what is encrypted in a good frame, padding included),
// environment.
#include "core/config/session_config.h"
#include "crypto/sm4_padding.h"
#include "harness.hpp"
#include "location/location_request.h"
#include "location/location_values.h"

namespace {

using namespace fuzz;

constexpr uint32_t kUntouched = 777;
constexpr size_t kBlock = 16;

struct Key {
  explicit Key(const ScpContext& context) { require(scp_getPublicKey(context.envIdCode, bytes) == kBlock); }
  uint8_t bytes[kBlock];
};

// One block. In a chain, what follows does not change it.
Bytes encrypt(const ScpContext& context, View plain) {
  Bytes blocks(plain.begin(), plain.end());
  blocks.resize(2 * kBlock);
  require(scp_sm4Encrypt(blocks.data(), kBlock, Key(context).bytes, 0, blocks.data()) == 2 * kBlock);
  blocks.resize(kBlock);
  return blocks;
}

Bytes frame_around(View payload) {
  const Bytes length = test::be(payload.size() + 12, 2);
  Bytes frame = Bytes{0x93} + length + Bytes{0x93, 0, 0, 0, 0, 0, 8, 0xAA} + payload;
  frame.push_back(sum(View(frame).subspan(1)));
  return frame;
}

// The location, or a negative code.
int32_t wanted(const ScpContext& context, View frame) {
  if (frame.size() < 12 || frame[0] != 0x93 || size_t{frame[1]} * 256 + frame[2] != frame.size()) return -1;
  if (frame[3] != 0x93 || frame[4] != 0) return -1;
  const View status = frame.subspan(5, 3);
  if (std::any_of(status.begin(), status.end(), [](uint8_t byte) { return byte != 0; })) {
    int32_t code = 0;
    for (size_t i = 0; i < 6; ++i) {
      const int digit = (i % 2 == 0 ? status[i / 2] >> 4 : status[i / 2]) & 15;
      if (digit > 9 && digit != 15) break;
      code = code * 10 + digit % 15;
    }
    return std::min(-code, -1);
  }
  if (frame[8] == 0 && frame[9] < 8) return -1;
  if (frame[10] != 0xAA || sum(frame.subspan(1, frame.size() - 2)) != frame.back()) return -1;
  if (frame.size() != 12 + kBlock) return -1;
  Bytes plain(kBlock);
  const int32_t len = scp_sm4Decrypt(&frame[11], kBlock, Key(context).bytes, 0, plain.data());
  if (len < 1) return -1;
  const auto last = static_cast<size_t>(len - 1);
  return sum(View(plain).first(last)) == plain[last] ? plain[0] : -1;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Choices choices(data, size);
  const uint8_t mode = choices.next() % 3;
  ScpContext context{};
  context.envIdCode = choices.one_of({TQ_ENVIRONMENT_A, TQ_ENVIRONMENT_B, TQ_ENVIRONMENT_C});
  const View content = choices.content();
  if ((mode == 1 && content.size() > 1024) || (mode == 2 && content.size() < kBlock)) return 0;
  const Block frame(mode == 0   ? content
                    : mode == 1 ? View(frame_around(content))
                                : View(frame_around(encrypt(context, content.first(kBlock)))));
  uint32_t location = kUntouched;
  const int32_t rc = scp_output_9300_analysis(&context, frame.bytes().data(), frame.size(), &location);
  const int32_t expected = wanted(context, frame.bytes());
  require(rc == std::min(expected, 0));
  require(location == (rc == 0 ? static_cast<uint32_t>(expected) : kUntouched));
  return 0;
}
