// The chip's side of PACE (ICAO 9303-11 section 4.4) with generic mapping, on OpenSSL.
#pragma once

#include <openssl/obj_mac.h>

#include "passport/chip_peer.hpp"
#include "support/openssl_curve.hpp"

namespace test {

inline const Bytes kPaceIdentifier = from_hex("04007f0007020204");  // mapping and cipher follow

struct Domain {
  uint8_t id;
  int nid;
};
inline constexpr Domain kDomains[] = {
    {10, NID_secp224r1},       {11, NID_brainpoolP224r1}, {12, NID_X9_62_prime256v1},
    {13, NID_brainpoolP256r1}, {14, NID_brainpoolP320r1}, {15, NID_secp384r1},
    {16, NID_brainpoolP384r1}, {17, NID_brainpoolP512r1}, {18, NID_secp521r1}};

inline Bytes tlv(uint8_t tag, const Bytes& value) {
  return Bytes{tag} + length_field(value.size()) + value;
}

inline Bytes pace_info(uint8_t mapping, uint8_t cipher, uint8_t domain) {
  const Bytes identifier = kPaceIdentifier + Bytes{mapping, cipher};
  return tlv(0x30, tlv(0x06, identifier) + Bytes{0x02, 0x01, 0x02, 0x02, 0x01, domain});
}

inline Bytes suite_key(uint8_t cipher, const Bytes& secret, uint8_t counter) {
  if (cipher == 1) return derived_key(secret, counter);
  const Bytes digest =
      openssl_digest(cipher == 2 ? EVP_sha1() : EVP_sha256(), secret + Bytes{0, 0, 0, counter});
  return slice(digest, 0, cipher == 2 ? 16 : cipher == 3 ? 24 : 32);
}

class PaceChip {
 public:
  PaceChip(uint8_t mapping, uint8_t cipher, int nid)
      : identifier_(kPaceIdentifier + Bytes{mapping, cipher}), cipher_(cipher), curve_(nid) {}

  // The terminal's data object of this tag in its GENERAL AUTHENTICATE. False when a byte is wrong around it.
  static bool take(const Bytes& command, uint8_t tag, Bytes& value) {
    const size_t head = command[4] < 0x84 ? 9 : 11;
    value = slice(command, std::min(head, command.size() - 1), command.size() - 1);
    return command == Bytes{static_cast<uint8_t>(tag == 0x85 ? 0x00 : 0x10), 0x86, 0, 0, command[4]} +
                          tlv(0x7C, tlv(tag, value)) + Bytes{0};
  }

  const OpenSslCurve& curve() const { return curve_; }

  Bytes encrypted_nonce(const Bytes& nonce, const Bytes& password) {
    const EVP_CIPHER* const ciphers[] = {EVP_des_ede_cbc(), EVP_aes_128_cbc(), EVP_aes_192_cbc(),
                                         EVP_aes_256_cbc()};
    nonce_ = nonce;
    return openssl_cipher(ciphers[cipher_ - 1], true, suite_key(cipher_, password, 3),
                          Bytes(cipher_ == 1 ? 8 : 16), nonce);
  }
  // Both return the chip's public key; the secrets are its private ones.
  Bytes map(const Bytes& their_key, const Bytes& secret) {
    base_ = curve_.product(nonce_, {}, curve_.product(secret, their_key));
    return curve_.product(secret, {});
  }
  Bytes agree(const Bytes& their_key, const Bytes& secret) {
    const Bytes x = slice(curve_.product(secret, their_key), 1, 1 + curve_.field_len());
    enc_ = suite_key(cipher_, x, 1);
    mac_ = suite_key(cipher_, x, 2);
    their_key_ = their_key;
    own_key_ = curve_.product(secret, base_);
    return own_key_;
  }
  Bytes expected_token() const { return token(own_key_); }
  Bytes own_token() const { return token(their_key_); }

  bool mapped() const { return !base_.empty(); }
  bool agreed() const { return !own_key_.empty(); }
  const Bytes& enc() const { return enc_; }
  const Bytes& mac() const { return mac_; }
  Chip channel() const { return {enc_, mac_, 0, cipher_ == 1 ? size_t{8} : size_t{16}}; }

 private:
  Bytes token(const Bytes& point) const {
    const Bytes object = Bytes{0x7F} + tlv(0x49, tlv(0x06, identifier_) + tlv(0x86, point));
    return cipher_ == 1 ? retail_mac(mac_, padded(object)) : slice(openssl_cmac(mac_, object), 0, 8);
  }

  Bytes identifier_;
  uint8_t cipher_;
  OpenSslCurve curve_;
  Bytes nonce_{};
  Bytes base_{};
  Bytes their_key_{};
  Bytes own_key_{};
  Bytes enc_{};
  Bytes mac_{};
};

}  // namespace test
