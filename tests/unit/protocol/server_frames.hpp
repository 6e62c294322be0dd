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

// SM4-CBC with PKCS#7 padding.
inline Bytes seal(const Bytes& plain, const Bytes& key = kKey, const Bytes& iv = kVector) {
  const size_t padding = 16 - plain.size() % 16;
  const Bytes blocks = plain + Bytes(padding, static_cast<uint8_t>(padding));
  return openssl_cipher(EVP_sm4_cbc(), true, key, iv, blocks);
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

// A response that says success, unless it has a status.
inline Bytes response_frame(uint8_t header, uint32_t command, uint8_t type, uint32_t parameter,
                            const Bytes& payload, uint32_t status = 0) {
  const size_t width = length_width(command);
  return summed(Bytes{header} + be(payload.size() + 10 + width, width) + be(command, 2) + be(status, 3) +
                    be(parameter, 2) + Bytes{type} + payload,
                1);
}

}  // namespace test
