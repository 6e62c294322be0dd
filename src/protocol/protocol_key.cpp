#include "protocol/protocol_key.h"

#include <array>
#include <string_view>

#include "core/config/session_config.h"
#include "protocol/commands.hpp"
#include "util/block_codec.h"
#include "util/block_codec.hpp"
#include "util/hex.h"
#include "util/secret.hpp"

#include TQREADER_KEYS_HEADER

namespace {

constexpr std::array<uint8_t, tq::kCodecBlockLen> kScrambleKey = {0x5A, 0xC3, 0x71, 0x1E,
                                                                  0xB8, 0x64, 0x9D, 0x2F};
constexpr size_t kScrambledLength = tq::block_encoded_len(tq::kKeyLength);

using ScrambledText = std::array<char, 2 * kScrambledLength + 1>;

// Not constant, so calling it ends the compilation: its name is the message.
[[maybe_unused]] void a_server_key_must_have_32_hexadecimal_digits() {}

consteval uint8_t digit_value(char digit) {
  if (digit >= '0' && digit <= '9') return static_cast<uint8_t>(digit - '0');
  if (digit >= 'A' && digit <= 'F') return static_cast<uint8_t>(digit - 'A' + 10);
  if (digit >= 'a' && digit <= 'f') return static_cast<uint8_t>(digit - 'a' + 10);
  a_server_key_must_have_32_hexadecimal_digits();
  return 0;
}

// The key as scrambled hex text, made while compiling: the plain key is not in the library.
consteval ScrambledText scrambled(std::string_view hex) {
  if (hex.size() != 2 * tq::kKeyLength) a_server_key_must_have_32_hexadecimal_digits();
  std::array<uint8_t, tq::kKeyLength> key{};
  for (size_t i = 0; i < key.size(); ++i) {
    key[i] = static_cast<uint8_t>(digit_value(hex[2 * i]) << 4 | digit_value(hex[2 * i + 1]));
  }
  ScrambledText text{};
  size_t at = 0;
  for (const uint8_t byte : tq::block_encode(key, kScrambleKey)) {
    text[at++] = "0123456789ABCDEF"[byte >> 4];
    text[at++] = "0123456789ABCDEF"[byte & 0x0F];
  }
  return text;
}

struct EnvironmentKey {
  uint32_t environment;
  ScrambledText text;
};

constexpr EnvironmentKey kKeys[] = {
    {TQ_ENVIRONMENT_A, scrambled(TQREADER_DECODE_KEY_268)},  // and every other code
    {TQ_ENVIRONMENT_B, scrambled(TQREADER_DECODE_KEY_52302)},
    {TQ_ENVIRONMENT_C, scrambled(TQREADER_DECODE_KEY_26814)},
};

const ScrambledText& text_for(uint32_t environment) {
  for (const EnvironmentKey& key : kKeys) {
    if (key.environment == environment) return key.text;
  }
  return kKeys[0].text;
}

}  // namespace

extern "C" int32_t TQ_getSm4PubulicKey(uint32_t envIdCode, uint8_t* key) {
  if (key == nullptr) return TQ_FAILED;
  tq::Secret<kScrambledLength> bytes;
  const uint32_t len = hexStringToBytes(text_for(envIdCode).data(), bytes.data());
  return tq1_decode(bytes.data(), len, kScrambleKey.data(), key);
}
