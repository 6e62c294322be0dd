// The other side of the decode-server protocol, laid out by hand and ciphered with OpenSSL.
#pragma once

#include <numeric>
#include <optional>

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

// The plaintext of whole blocks: 1 to 16 bytes of padding are cut off, of which only the last is looked at.
// Nothing for a length that is no multiple of a block, and for padding that is longer than all.
inline std::optional<Bytes> unseal(const Bytes& sealed, const Bytes& key = kKey, const Bytes& iv = kVector) {
  if (sealed.empty() || sealed.size() % 16 != 0) return std::nullopt;
  Bytes plain = openssl_cipher(EVP_sm4_cbc(), false, key, iv, sealed);
  if (plain.back() > plain.size()) return std::nullopt;
  plain.resize(plain.size() - plain.back());
  return plain;
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

}  // namespace test
