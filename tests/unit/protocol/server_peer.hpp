// The other side of the decode-server protocol, laid out by hand and ciphered with OpenSSL.
#pragma once

#include <algorithm>
#include <initializer_list>
#include <numeric>

#include "core/config/session_config.h"
#include "support/bytes.hpp"
#include "support/openssl_peer.hpp"

namespace test {

inline const Bytes kKey = from_hex("00112233445566778899AABBCCDDEEFF");
inline const Bytes kVector = from_hex("F0E1D2C3B4A5968778695A4B3C2D1E0F");

inline Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// The work key block as the library takes it.
inline const Bytes kWorkKey = kKey + kVector;

inline Bytes be(size_t value, size_t width) {
  Bytes bytes(width);
  for (size_t i = 0; i < width; ++i) bytes[i] = static_cast<uint8_t>(value >> (8 * (width - 1 - i)));
  return bytes;
}

inline uint8_t byte_sum(const Bytes& bytes, size_t from, size_t to) {
  const auto at = [&](size_t i) { return bytes.begin() + static_cast<ptrdiff_t>(i); };
  return static_cast<uint8_t>(std::accumulate(at(from), at(to), 0U));
}

// Appends the sum of the bytes from `from` on.
inline Bytes summed(Bytes bytes, size_t from) {
  bytes.push_back(byte_sum(bytes, from, bytes.size()));
  return bytes;
}

inline size_t length_width(uint32_t command) {
  return command == 0x7201 || command == 0x7202 ? 4 : 2;
}

// SM4-CBC with PKCS#7 padding.
inline Bytes seal(Bytes plain, const Bytes& key = kKey, const Bytes& iv = kVector) {
  const size_t padding = 16 - plain.size() % 16;
  plain.resize(plain.size() + padding, static_cast<uint8_t>(padding));
  return openssl_cipher(EVP_sm4_cbc(), true, key, iv, plain);
}

inline Bytes unseal(const Bytes& sealed, const Bytes& key = kKey, const Bytes& iv = kVector) {
  Bytes plain = openssl_cipher(EVP_sm4_cbc(), false, key, iv, sealed);
  const size_t padding = plain.empty() ? 0 : plain.back();
  EXPECT_TRUE(padding >= 1 && padding <= 16 && padding <= plain.size());
  EXPECT_TRUE(std::all_of(plain.end() - static_cast<ptrdiff_t>(padding), plain.end(),
                          [&](uint8_t b) { return b == padding; }));
  plain.resize(plain.size() - padding);
  return plain;
}

// The vector that belongs to a key: both halves of its SM3 digest, folded.
inline Bytes folded_vector(const Bytes& key) {
  Bytes digest = openssl_digest(EVP_sm3(), key);
  for (size_t i = 0; i < 16; ++i) digest[i] ^= digest[i + 16];
  digest.resize(16);
  return digest;
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
  Bytes payload;
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

// The payload of a request frame, whose every other byte is checked.
inline Bytes payload_of(const Bytes& frame, uint32_t command, uint8_t header = 0x70, uint8_t type = 0xAA,
                        uint32_t parameter = 7) {
  const size_t head = 8 + length_width(command);
  if (frame.size() <= head + 1) {
    ADD_FAILURE() << "a frame of " << frame.size() << " bytes";
    return {};
  }
  const Bytes payload(frame.begin() + static_cast<ptrdiff_t>(head), frame.end() - 1);
  EXPECT_EQ(hex(frame), hex(request_frame(command, payload, header, type, parameter)));
  return payload;
}

inline uint32_t len(const Bytes& bytes) {
  return static_cast<uint32_t>(bytes.size());
}

inline constexpr int64_t kNow = 1'700'000'123'456;
inline int64_t now() {
  return kNow;
}

// What the pseudo-random generator makes of kNow, worked out apart from the library.
inline const Bytes kRandomNow = from_hex("207BCDCF38DF80EC3F3894AAC023B88B");

}  // namespace test
