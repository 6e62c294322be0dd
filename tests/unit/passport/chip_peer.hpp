// The chip's side of Basic Access Control and secure messaging (ICAO 9303-11), on OpenSSL.
#pragma once

#include <algorithm>
#include <bit>

#include "support/openssl_peer.hpp"

namespace test {

inline Bytes operator+(Bytes left, const Bytes& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

inline Bytes slice(const Bytes& bytes, size_t from, size_t to) {
  return Bytes(bytes.begin() + static_cast<ptrdiff_t>(from), bytes.begin() + static_cast<ptrdiff_t>(to));
}

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

class Chip {
 public:
  Chip(Bytes enc, Bytes mac, uint64_t ssc) : enc_(std::move(enc)), mac_(std::move(mac)), ssc_(ssc) {}

  static Bytes counter(uint64_t value) {
    Bytes bytes;
    for (int shift = 56; shift >= 0; shift -= 8) bytes.push_back(static_cast<uint8_t>(value >> shift));
    return bytes;
  }
  Bytes ssc() const { return counter(ssc_); }

  // The protected form of these objects.
  Bytes answer(const Bytes& objects) {
    ++ssc_;
    return objects + Bytes{0x8E, 8} + retail_mac(mac_, padded(ssc() + objects));
  }
  // `form` is how many length bytes follow the first, 0 to 2.
  Bytes cryptogram(const Bytes& content, size_t form) const {
    const size_t len = content.size() + 1;
    Bytes object = {0x87};
    if (form > 0) object.push_back(static_cast<uint8_t>(0x80 + form));
    if (form > 1) object.push_back(static_cast<uint8_t>(len >> 8));
    object.push_back(static_cast<uint8_t>(len));
    object.push_back(1);
    return object + two_key_cbc(true, enc_, content);
  }
  static size_t shortest_form(size_t len) { return len < 0x80 ? 0 : len < 0x100 ? 1 : 2; }

  // Opens a command that has to be exactly as long as `data` and Le (none when negative) make it.
  // False for any other byte.
  bool accepts(const Bytes& command, const Bytes& header, const Bytes& data, int le) {
    ++ssc_;
    Bytes objects;
    if (!data.empty()) objects = cryptogram(padded(data), shortest_form(padded(data).size() + 1));
    if (le >= 0) objects = objects + Bytes{0x97, 1, static_cast<uint8_t>(le)};
    const Bytes mac = retail_mac(mac_, padded(ssc() + padded(header) + objects));
    return command == header + Bytes{static_cast<uint8_t>(objects.size() + 10)} + objects + Bytes{0x8E, 8} +
                          mac + Bytes{0};
  }

 private:
  Bytes enc_;
  Bytes mac_;
  uint64_t ssc_;
};

}  // namespace test
