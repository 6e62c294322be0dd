// The other side of the decode-server protocol, laid out by hand and ciphered with OpenSSL.
#pragma once

#include <cstring>
#include <numeric>

#include "core/config/session_config.h"
#include "support/bytes.hpp"
#include "support/openssl_peer.hpp"

namespace test {

inline const Bytes kKey = from_hex("00112233445566778899AABBCCDDEEFF");
inline const Bytes kVector = from_hex("F0E1D2C3B4A5968778695A4B3C2D1E0F");
// The work key block as the library takes it.
inline const Bytes kWorkKey = kKey + kVector;

// Appends the sum of the bytes from `from` on.
inline Bytes summed(Bytes bytes, size_t from) {
  bytes.push_back(static_cast<uint8_t>(
      std::accumulate(bytes.begin() + static_cast<ptrdiff_t>(from), bytes.end(), uint32_t{0})));
  return bytes;
}

inline size_t length_width(uint32_t command) {
  return command == 0x7201 || command == 0x7202 ? 4 : 2;
}

// SM4-CBC of whole blocks, and with PKCS#7 padding.
inline Bytes seal_blocks(const Bytes& blocks, const Bytes& key = kKey, const Bytes& iv = kVector) {
  return openssl_cipher(EVP_sm4_cbc(), true, key, iv, blocks);
}
inline Bytes seal(const Bytes& plain, const Bytes& key = kKey, const Bytes& iv = kVector) {
  const size_t padding = 16 - plain.size() % 16;
  return seal_blocks(plain + Bytes(padding, static_cast<uint8_t>(padding)), key, iv);
}

inline Bytes secret_frame(uint32_t command, const Bytes& data) {
  const size_t width = length_width(command);
  return summed(from_hex("FFFFFF") + be(data.size() + 8 + width, width) + be(command, 2) + data, 3) +
         from_hex("FEFE");
}

inline Bytes request_frame(uint32_t command, const Bytes& payload, uint8_t header = 0x70, uint8_t type = 0xAA,
                           uint32_t parameter = 7) {
  const size_t width = length_width(command);
  return summed(Bytes{header} + be(payload.size() + 9 + width, width) + be(command, 2) + from_hex("0009") +
                    be(parameter, 2) + Bytes{type} + payload,
                1);
}

struct ResponseFields {
  uint32_t command = 0x5012;
  Bytes payload = {};
  uint8_t header = 0x70;
  uint8_t type = 0xAA;
  uint32_t parameter = 8;
  Bytes status = from_hex("000000");
  uint32_t form = 0;  // the command that decides the length form; 0 = `command`
};

inline Bytes response_frame(const ResponseFields& f) {
  const size_t width = length_width(f.form == 0 ? f.command : f.form);
  return summed(Bytes{f.header} + be(f.payload.size() + 10 + width, width) + be(f.command, 2) + f.status +
                    be(f.parameter, 2) + Bytes{f.type} + f.payload,
                1);
}

inline constexpr int64_t kNow = 1'700'000'123'456;
// What the pseudo-random generator makes of kNow, worked out apart from the library.
inline const Bytes kRandomNow = from_hex("207BCDCF38DF80EC3F3894AAC023B88B");

// What the system's random bytes are while one of these lives; zeros leave what they are added to as it is.
enum class SystemRandom { kReal, kZeros, kNone };
extern SystemRandom g_system_random;
struct WithSystemRandom {
  explicit WithSystemRandom(SystemRandom kind) { g_system_random = kind; }
  ~WithSystemRandom() { g_system_random = SystemRandom::kReal; }
  WithSystemRandom(const WithSystemRandom&) = delete;
  WithSystemRandom& operator=(const WithSystemRandom&) = delete;
};

// A configuration whose device identifier has this length.
inline SessionConfig config_with_device(size_t device_length) {
  SessionConfig cfg{};
  std::memset(reinterpret_cast<char*>(&cfg) + offsetof(SessionConfig, sn1), 'd', device_length);
  cfg.timestampCallback = [] { return kNow; };
  cfg.decodeMode = 1;
  cfg.frameFlag = 1;
  cfg.queryInfo[0] = 2;
  cfg.queryInfo[1] = 1;
  return cfg;
}

// `build(out, capacity)` makes these bytes when they just fit, and is refused when they do not. No bytes:
// always refused.
template <typename Build>
void expect_built(Build build, const Bytes& expected) {
  Bytes out(std::max<size_t>(expected.size(), 70000));
  EXPECT_EQ(text_of(build(out.data(), expected.empty() ? len(out) : len(expected)), out),
            expected.empty() ? "-1" : hex(expected));
  if (!expected.empty()) {
    EXPECT_EQ(build(out.data(), len(expected) - 1), -1);
  }
}

// `parse(frame, length, out, capacity)` delivers these bytes (or the code) where they just fit, and refuses
// the frame cut anywhere.
template <typename Parse>
void expect_parsed(Parse parse, const Bytes& frame, const std::string& result, size_t room) {
  Bytes out(room);
  EXPECT_EQ(text_of(parse(frame.data(), len(frame), out.data(), len(out)), out), result);
  for (size_t n = 0; n < frame.size(); ++n)
    EXPECT_EQ(parse(exact_copy(frame, n).data(), static_cast<uint32_t>(n), out.data(), len(out)), -1) << n;
}

}  // namespace test
