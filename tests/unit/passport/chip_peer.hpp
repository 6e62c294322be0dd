// The chip's side of Basic Access Control and secure messaging (ICAO 9303-11), on OpenSSL.
#pragma once

#include <algorithm>
#include <bit>

#include "support/openssl_peer.hpp"

namespace test {

inline Bytes padded(Bytes bytes) {
  bytes.push_back(0x80);
  while (bytes.size() % 8 != 0) bytes.push_back(0);
  return bytes;
}

inline Bytes two_key_cbc(bool encrypt, const Bytes& key, const Bytes& data) {
  return openssl_cipher(EVP_des_ede_cbc(), encrypt, key, Bytes(8), data);
}

// Of whole blocks: single DES in a chain, the last one with all of triple DES.
inline Bytes retail_mac(const Bytes& key, const Bytes& data) {
  const Bytes chain = openssl_cipher(EVP_des_cbc(), true, slice(key, 0, 8), Bytes(8), data);
  const Bytes last = openssl_cipher(EVP_des_ecb(), false, slice(key, 8, 16), {},
                                    slice(chain, chain.size() - 8, chain.size()));
  return openssl_cipher(EVP_des_ecb(), true, slice(key, 0, 8), {}, last);
}

inline Bytes derived_key(const Bytes& seed, uint8_t counter) {
  Bytes key = slice(openssl_digest(EVP_sha1(), seed + Bytes{0, 0, 0, counter}), 0, 16);
  for (uint8_t& byte : key)
    byte = static_cast<uint8_t>((byte & 0xFE) | (std::popcount(byte & 0xFEU) % 2 == 0 ? 1 : 0));
  return key;
}

// The shortest length field, or with `form` bytes behind the first.
inline Bytes length_field(size_t len, int form = -1) {
  if (form < 0) form = len < 0x80 ? 0 : len < 0x100 ? 1 : 2;
  const auto width = static_cast<size_t>(form);
  return form == 0 ? be(len, 1) : Bytes{static_cast<uint8_t>(0x80 + width)} + be(len, width);
}

class Chip {
 public:
  Chip(Bytes enc, Bytes mac, uint64_t ssc) : enc_(std::move(enc)), mac_(std::move(mac)), ssc_(ssc) {}

  Bytes ssc() const { return be(ssc_, 8); }
  void count() { ++ssc_; }

  // Of the counter and what follows it.
  Bytes mac(const Bytes& content) const { return retail_mac(mac_, padded(ssc() + content)); }
  // The protected form of these objects.
  Bytes answer(const Bytes& objects) {
    count();
    return objects + Bytes{0x8E, 8} + mac(objects);
  }
  // Of whole blocks.
  Bytes cryptogram(const Bytes& content, int form = -1) const {
    return Bytes{0x87} + length_field(content.size() + 1, form) + Bytes{1} + two_key_cbc(true, enc_, content);
  }
  Bytes padded_cryptogram(const Bytes& data) const { return cryptogram(padded(data)); }
  // That of an odd instruction has no padding indicator.
  Bytes tlv_cryptogram(const Bytes& data) const {
    return Bytes{0x85} + length_field(padded(data).size()) + two_key_cbc(true, enc_, padded(data));
  }
  Bytes deciphered(const Bytes& blocks) const { return two_key_cbc(false, enc_, blocks); }

  // Opens a command that has to be exactly as long as `data` and Le (none when negative) make it.
  // False for any other byte.
  bool accepts(const Bytes& command, const Bytes& header, const Bytes& data, int le) {
    count();
    Bytes objects = data.empty() ? Bytes{} : padded_cryptogram(data);
    if (le >= 0) objects = objects + Bytes{0x97, 1, static_cast<uint8_t>(le)};
    return command == header + Bytes{static_cast<uint8_t>(objects.size() + 10)} + objects + Bytes{0x8E, 8} +
                          mac(padded(header) + objects) + Bytes{0};
  }

 private:
  Bytes enc_;
  Bytes mac_;
  uint64_t ssc_;
};

}  // namespace test
