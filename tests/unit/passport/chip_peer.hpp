// The chip's side of Basic Access Control and secure messaging (ICAO 9303-11), on OpenSSL.
#pragma once

#include <algorithm>
#include <bit>

#include "support/openssl_peer.hpp"

namespace test {

inline Bytes padded(Bytes bytes, size_t block = 8) {
  bytes.push_back(0x80);
  while (bytes.size() % block != 0) bytes.push_back(0);
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

// With blocks of 8 bytes its cipher is triple DES, with 16 AES.
class Chip {
 public:
  Chip(Bytes enc, Bytes mac, uint64_t ssc, size_t block = 8)
      : enc_(std::move(enc)), mac_(std::move(mac)), ssc_(ssc), block_(block) {}

  Bytes ssc() const { return ssc(ssc_); }
  void count() { ++ssc_; }
  size_t block_len() const { return block_; }

  // Of the counter and what follows it.
  Bytes mac(const Bytes& content) const {
    const Bytes input = padded(ssc() + content, block_);
    return block_ == 8 ? retail_mac(mac_, input) : slice(openssl_cmac(mac_, input), 0, 8);
  }
  Bytes command_mac(const Bytes& header, const Bytes& objects) const {
    return mac(padded(header, block_) + objects);
  }
  // The protected form of these objects.
  Bytes answer(const Bytes& objects) {
    count();
    return objects + Bytes{0x8E, 8} + mac(objects);
  }
  // Of whole blocks, in the message that will be counted next.
  Bytes cryptogram(const Bytes& content, int form = -1) const {
    return Bytes{0x87} + length_field(content.size() + 1, form) + Bytes{1} + cbc(true, ssc_ + 1, content);
  }
  Bytes padded_cryptogram(const Bytes& data) const { return cryptogram(padded(data, block_)); }
  // That of an odd instruction has no padding indicator.
  Bytes tlv_cryptogram(const Bytes& data) const {
    const Bytes content = padded(data, block_);
    return Bytes{0x85} + length_field(content.size()) + cbc(true, ssc_ + 1, content);
  }
  // Of the message that was counted last.
  Bytes deciphered(const Bytes& blocks) const { return cbc(false, ssc_, blocks); }

  // Opens a command that has to be exactly as long as `data` and Le (none when negative) make it.
  // False for any other byte.
  bool accepts(const Bytes& command, const Bytes& header, const Bytes& data, int le) {
    Bytes objects = data.empty() ? Bytes{} : padded_cryptogram(data);
    count();
    if (le >= 0) objects = objects + Bytes{0x97, 1, static_cast<uint8_t>(le)};
    return command == header + Bytes{static_cast<uint8_t>(objects.size() + 10)} + objects + Bytes{0x8E, 8} +
                          command_mac(header, objects) + Bytes{0};
  }

 private:
  Bytes ssc(uint64_t number) const { return Bytes(block_ - 8) + be(number, 8); }
  // The vector of AES is the encrypted counter.
  Bytes cbc(bool encrypt, uint64_t number, const Bytes& blocks) const {
    if (block_ == 8) return two_key_cbc(encrypt, enc_, blocks);
    const EVP_CIPHER* const ciphers[] = {EVP_aes_128_cbc(), EVP_aes_192_cbc(), EVP_aes_256_cbc()};
    const EVP_CIPHER* const cipher = ciphers[enc_.size() / 8 - 2];
    return openssl_cipher(cipher, encrypt, enc_, openssl_cipher(cipher, true, enc_, Bytes(16), ssc(number)),
                          blocks);
  }

  Bytes enc_;
  Bytes mac_;
  uint64_t ssc_;
  size_t block_;
};

}  // namespace test
