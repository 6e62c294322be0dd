// The location server's answer. Choices: what the content is (a whole frame; the payload of a good frame;
// what is encrypted in a good frame, padding included), environment.
#include "core/config/session_config.h"
#include "crypto/sm4_padding.h"
#include "harness.hpp"
#include "location/location_request.h"
#include "location/location_values.h"

namespace {

using fuzz::Block;
using fuzz::Bytes;
using fuzz::require;
using fuzz::View;

constexpr uint32_t kUntouched = 777;
constexpr size_t kBlock = 16;

// One block under the key of the environment. In a chain, what follows does not change it.
Bytes encrypt(const ScpContext& context, View plain) {
  uint8_t key[kBlock];
  require(scp_getPublicKey(context.envIdCode, key) == kBlock);
  Bytes blocks(plain.begin(), plain.end());
  blocks.resize(2 * kBlock);
  require(scp_sm4Encrypt(blocks.data(), kBlock, key, 0, blocks.data()) == 2 * kBlock);
  blocks.resize(kBlock);
  return blocks;
}

Bytes frame_around(View payload) {
  Bytes frame = {0x93};
  fuzz::append_number(frame, payload.size() + 12, 2);
  fuzz::append_number(frame, 0x9300, 2);
  fuzz::append(frame, Bytes{0, 0, 0, 0, 8, 0xAA});
  fuzz::append(frame, payload);
  frame.push_back(fuzz::sum(View(frame).subspan(1)));
  return frame;
}

int32_t analyse(const ScpContext& context, View frame, uint32_t& location) {
  Block exact(frame);
  location = kUntouched;
  const int32_t rc = scp_output_9300_analysis(&context, exact.data(), exact.size(), &location);
  if (rc != 0) {
    require(rc < 0 && rc >= -999999);
    require(location == kUntouched);
    return rc;
  }
  require(location <= 255 && frame.size() == 12 + kBlock && frame[0] == 0x93 && frame[2] == frame.size());
  require(fuzz::sum(frame.subspan(1, frame.size() - 2)) == frame.back());
  return rc;
}

// What an answer with this in its one block has to come to: the location, or -1.
int32_t location_in(View plain) {
  const int len = static_cast<int>(kBlock) - plain.back();
  if (len < 1) return -1;
  const View content = plain.first(static_cast<size_t>(len));
  return fuzz::sum(content.first(content.size() - 1)) == content.back() ? content[0] : -1;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::Choices choices(data, size);
  const uint8_t mode = choices.next() % 3;
  ScpContext context{};
  context.envIdCode = choices.one_of({TQ_ENVIRONMENT_A, TQ_ENVIRONMENT_B, TQ_ENVIRONMENT_C});
  const View content = choices.content();
  uint32_t location = 0;
  if (mode == 0) {
    analyse(context, content, location);
  } else if (mode == 1 && content.size() < 1024) {
    const int32_t rc = analyse(context, frame_around(content), location);
    require(rc >= -1 && (content.size() == kBlock || rc == -1));
  } else if (content.size() >= kBlock) {
    const View plain = content.first(kBlock);
    const int32_t rc = analyse(context, frame_around(encrypt(context, plain)), location);
    const int32_t wanted = location_in(plain);
    require(wanted < 0 ? rc == wanted : rc == 0 && location == static_cast<uint32_t>(wanted));
  }
  return 0;
}
