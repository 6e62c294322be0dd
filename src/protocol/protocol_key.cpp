#include "protocol/protocol_key.h"

#include <array>
#include <string_view>

#include "core/config/environment.hpp"
#include "protocol/frames.hpp"
#include "util/block_codec.h"
#include "util/block_codec.hpp"
#include "util/hex.h"
#include "util/secret.hpp"
#include "util/text.hpp"

#include TQREADER_KEYS_HEADER

namespace {

constexpr std::array<uint8_t, tq::kCodecBlockLen> kScrambleKey = {0x5A, 0xC3, 0x71, 0x1E,
                                                                  0xB8, 0x64, 0x9D, 0x2F};
constexpr size_t kScrambledLength = tq::block_encoded_len(tq::kKeyLength);

using ScrambledText = std::array<char, 2 * kScrambledLength + 1>;

// Not constant, so calling it ends the compilation: its name is the message.
[[maybe_unused]] void a_server_key_must_have_32_hexadecimal_digits() {}

consteval uint8_t key_digit(char digit) {
  const uint32_t value = tq::hex_digit_value(digit);
  if (value > 15) a_server_key_must_have_32_hexadecimal_digits();
  return static_cast<uint8_t>(value);
}

// The key as scrambled hex text, made while compiling: the plain key is not in the library.
consteval ScrambledText scrambled(std::string_view hex) {
  if (hex.size() != 2 * tq::kKeyLength) a_server_key_must_have_32_hexadecimal_digits();
  std::array<uint8_t, tq::kKeyLength> key{};
  for (size_t i = 0; i < key.size(); ++i) {
    key[i] = static_cast<uint8_t>(key_digit(hex[2 * i]) << 4 | key_digit(hex[2 * i + 1]));
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

}  // namespace

extern "C" int32_t TQ_getSm4PubulicKey(uint32_t envIdCode, uint8_t* key) {
  if (key == nullptr) return TQ_FAILED;
  tq::Secret<kScrambledLength> bytes;
  const uint32_t len = hexStringToBytes(tq::row_for(kKeys, envIdCode).text.data(), bytes.data());
  return tq1_decode(bytes.data(), len, kScrambleKey.data(), key);
}
