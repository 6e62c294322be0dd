#include "passport/pace.hpp"

#include <algorithm>

#include "crypto/aes.hpp"
#include "crypto/constant_time.hpp"
#include "crypto/key_derivation.hpp"
#include "passport/padding.hpp"
#include "passport/three_des.hpp"
#include "util/byte_cursor.hpp"
#include "util/tlv.hpp"

namespace tq {
namespace {

using Bytes = std::span<const uint8_t>;

// ISO/IEC 7816-4: MANAGE SECURITY ENVIRONMENT for mutual authentication, and GENERAL AUTHENTICATE, all but
// the last of which are chained.
constexpr uint8_t kSetAt[] = {0x00, 0x22, 0xC1, 0xA4};
constexpr uint8_t kGeneralAuthenticate[] = {0x86, 0x00, 0x00};
constexpr uint8_t kChained = 0x10;
constexpr uint8_t kLast = 0x00;

// ICAO 9303-11 section 4.4.4: data objects of both commands.
constexpr uint8_t kTagProtocol = 0x80;
constexpr uint8_t kTagPassword = 0x83;
constexpr uint8_t kTagDomain = 0x84;
constexpr uint8_t kPasswordMrz = 0x01;
constexpr uint8_t kTagDynamicAuthenticationData = 0x7C;
constexpr uint8_t kTagNonce = 0x80;
constexpr uint8_t kTagOurMappingKey = 0x81;
constexpr uint8_t kTagMappingKey = 0x82;
constexpr uint8_t kTagOurPublicKey = 0x83;
constexpr uint8_t kTagPublicKey = 0x84;
constexpr uint8_t kTagOurToken = 0x85;
constexpr uint8_t kTagToken = 0x86;

// Section 9.4: a public key data object, 7F49.
constexpr uint8_t kPublicKeyObject[] = {0x7F, 0x49};
constexpr uint8_t kTagIdentifier = 0x06;
constexpr uint8_t kTagPoint = 0x86;

constexpr size_t kNonceLens[] = {16, 32};
constexpr size_t kNonceMax = 32;
constexpr size_t kAesBlockLen = Aes::kBlockLen;

// An object's header: values are shorter than 256 bytes.
constexpr size_t header_len(size_t len) {
  return len < 0x80 ? 2 : 3;
}

void write_header(ByteWriter& w, uint8_t tag, size_t len) {
  w.u8(tag);
  if (len >= 0x80) w.u8(0x81);
  w.u8(static_cast<unsigned>(len));
}

void write_object(ByteWriter& w, uint8_t tag, Bytes value) {
  write_header(w, tag, value.size());
  w.bytes(value);
}

[[nodiscard]] bool take_object(ByteReader& r, uint8_t expected, Bytes& value) {
  uint8_t tag = 0;
  uint32_t len = 0;
  return r.u8(tag) && tag == expected && read_length(r, kChipLengths, len) == LengthField::kRead &&
         r.take(len, value);
}

// The one object within the dynamic authentication data; what follows it there goes to `rest`.
[[nodiscard]] bool parse_answer(Bytes answer, uint8_t tag, Bytes& value, Bytes& rest) {
  ByteReader r(answer);
  Bytes objects;
  if (!take_object(r, kTagDynamicAuthenticationData, objects) || !r.done()) return false;
  ByteReader inner(objects);
  if (!take_object(inner, tag, value)) return false;
  rest = inner.rest();
  return true;
}

[[nodiscard]] bool parse_answer(Bytes answer, uint8_t tag, Bytes& value) {
  Bytes rest;
  return parse_answer(answer, tag, value, rest) && rest.empty();
}

// Well-formed objects with tags of one byte.
[[nodiscard]] bool are_objects(Bytes bytes) {
  for (ByteReader r(bytes); !r.done();) {
    uint32_t len = 0;
    if (!r.skip(1) || read_length(r, kChipLengths, len) != LengthField::kRead || !r.skip(len)) return false;
  }
  return true;
}

void derive_suite_key(CipherSuite suite, Bytes secret, KeyUse use, Secret<32>& out) {
  const std::span<uint8_t> key = out.bytes().first(key_len(suite));
  derive_key(secret, use, key);
  if (suite == CipherSuite::k3Des) set_des_parity(key);
}

}  // namespace

Pace::Pace(const PaceOffer& offer, std::span<const uint8_t, kPasswordLen> password)
    : offer_(offer), curve_(*offer.curve) {
  keys_.suite = offer.suite;
  derive_suite_key(offer.suite, password, KeyUse::kPassword, password_key_);
}

void Pace::wipe_secrets() {
  wipe(&own_secret_, sizeof own_secret_);
  wipe(&nonce_, sizeof nonce_);
  wipe(password_key_.bytes());
}

Pace::Result Pace::next(Waiting waiting) {
  waiting_ = waiting;
  return Result::kNext;
}

Pace::Result Pace::end(Result result) {
  waiting_ = Waiting::kNothing;
  command_len_ = 0;
  wipe_secrets();
  if (result != Result::kDone) {
    wipe(keys_.enc.bytes());
    wipe(keys_.mac.bytes());
  }
  return result;
}

// A chip finds out that the keys differ when it looks at our token.
Pace::Result Pace::take_refusal() {
  return end(waiting_ == Waiting::kToken ? Result::kWrongKey : Result::kNonsense);
}

Pace::Result Pace::begin() {
  if (waiting_ != Waiting::kBegin) return end(Result::kNonsense);
  const uint8_t password[] = {kPasswordMrz};
  const uint8_t domain[] = {offer_.domain};
  const size_t len =
      2 + offer_.protocol.size() + 2 + sizeof password + (offer_.ambiguous ? 2 + sizeof domain : 0);
  ByteWriter w(command_);
  w.bytes(kSetAt);
  w.u8(static_cast<unsigned>(len));
  write_object(w, kTagProtocol, offer_.protocol);
  write_object(w, kTagPassword, password);
  if (offer_.ambiguous) write_object(w, kTagDomain, domain);
  command_len_ = w.size();
  return next(Waiting::kAcceptance);
}

Pace::Result Pace::take_acceptance(Bytes data) {
  if (waiting_ != Waiting::kAcceptance || !data.empty()) return end(Result::kNonsense);
  return authenticate(0, {}, Waiting::kNonce);
}

// The first command has no object.
Pace::Result Pace::authenticate(uint8_t tag, Bytes value, Waiting waiting) {
  const size_t len = tag == 0 ? 0 : header_len(value.size()) + value.size();
  ByteWriter w(command_);
  w.u8(waiting == Waiting::kToken ? kLast : kChained);
  w.bytes(kGeneralAuthenticate);
  w.u8(static_cast<unsigned>(header_len(len) + len));
  write_header(w, kTagDynamicAuthenticationData, len);
  if (tag != 0) write_object(w, tag, value);
  w.u8(0);
  command_len_ = w.size();
  return w.ok() ? next(waiting) : end(Result::kNonsense);
}

bool Pace::decrypt_nonce(Bytes nonce, std::span<uint8_t> out) const {
  const Bytes key = password_key_.bytes().first(key_len(offer_.suite));
  if (offer_.suite == CipherSuite::k3Des) {
    return three_des_decrypt(key.first<kTwoKeyLen>(), nonce, out.data());
  }
  std::array<uint8_t, kAesBlockLen> vector{};
  aes_cbc_decrypt(Aes(key), vector, nonce, out);
  return true;
}

// Our secret key is new, and `own_key_` the public one that belongs to it.
bool Pace::make_key_pair(const Curve::Point& base, Bytes random) {
  Curve::Point product{};
  const WipeOnExit wipe_product(product);
  curve_.reduce(random.first(curve_.field_len() + (kRandomLen - kMaxFieldLen)), own_secret_);
  curve_.multiply(own_secret_, base, product);
  return curve_.encode(product, own_key_);
}

Pace::Result Pace::take_nonce(Bytes data, std::span<const uint8_t, kRandomLen> random) {
  Bytes nonce;
  if (waiting_ != Waiting::kNonce || !parse_answer(data, kTagNonce, nonce) ||
      std::find(std::begin(kNonceLens), std::end(kNonceLens), nonce.size()) == std::end(kNonceLens)) {
    return end(Result::kNonsense);
  }
  Secret<kNonceMax> plain;
  const std::span<uint8_t> s = plain.bytes().first(nonce.size());
  if (!decrypt_nonce(nonce, s)) return end(Result::kNonsense);
  curve_.reduce(s, nonce_);
  wipe(password_key_.bytes());
  if (!make_key_pair(curve_.generator(), random)) return end(Result::kNonsense);
  return authenticate(kTagOurMappingKey, own_key(), Waiting::kMappingKey);
}

// Section 9.5.3.1: the new generator is s * G + H, where H is the point that both have agreed on.
Pace::Result Pace::take_mapping_key(Bytes data, std::span<const uint8_t, kRandomLen> random) {
  Bytes encoded;
  Curve::Point mapped{};
  Curve::Point agreed{};
  const WipeOnExit wipe_mapped(mapped);
  const WipeOnExit wipe_agreed(agreed);
  if (waiting_ != Waiting::kMappingKey || !parse_answer(data, kTagMappingKey, encoded) ||
      !curve_.decode(encoded, agreed) || equal_mask(encoded, own_key()) != 0) {
    return end(Result::kNonsense);
  }
  curve_.multiply(own_secret_, agreed, agreed);
  curve_.multiply(nonce_, curve_.generator(), mapped);
  curve_.add(mapped, agreed, mapped);
  // Of a neutral generator every multiple is neutral, which has no encoding.
  if (!make_key_pair(mapped, random)) return end(Result::kNonsense);
  return authenticate(kTagOurPublicKey, own_key(), Waiting::kPublicKey);
}

// Section 9.7.1: the secret is the x of the point, in its full length. An echo of our own key would come with
// an echo of our own token.
Pace::Result Pace::take_public_key(Bytes data) {
  Bytes encoded;
  Curve::Point agreed{};
  Secret<kMaxPointLen> secret;
  Token token{};
  const WipeOnExit wipe_agreed(agreed);
  if (waiting_ != Waiting::kPublicKey || !parse_answer(data, kTagPublicKey, encoded) ||
      !curve_.decode(encoded, agreed) || equal_mask(encoded, own_key()) != 0) {
    return end(Result::kNonsense);
  }
  curve_.multiply(own_secret_, agreed, agreed);
  if (!curve_.encode(agreed, secret.bytes())) return end(Result::kNonsense);
  const Bytes x = secret.bytes().subspan(1, curve_.field_len());
  derive_suite_key(offer_.suite, x, KeyUse::kEncryption, keys_.enc);
  derive_suite_key(offer_.suite, x, KeyUse::kMac, keys_.mac);
  if (!compute_token(encoded, token) || !compute_token(own_key(), expected_token_))
    return end(Result::kNonsense);
  return authenticate(kTagOurToken, token, Waiting::kToken);
}

// Section 4.4.3.4: the MAC over the public key of the other side. 3DES has its padding before the MAC, CMAC
// has its own within.
bool Pace::compute_token(Bytes public_key, Token& out) const {
  constexpr size_t room = 2 + 2 + 2 + sizeof(PaceProtocol) + 3 + kMaxPointLen + kDesBlockLen;
  std::array<uint8_t, room> object{};
  ByteWriter w(object);
  w.bytes(kPublicKeyObject);
  const size_t len = 2 + offer_.protocol.size() + header_len(public_key.size()) + public_key.size();
  if (len >= 0x80) w.u8(0x81);
  w.u8(static_cast<unsigned>(len));
  write_object(w, kTagIdentifier, offer_.protocol);
  write_object(w, kTagPoint, public_key);
  if (!w.ok()) return false;

  const Bytes key = keys_.mac.bytes().first(key_len(offer_.suite));
  if (offer_.suite == CipherSuite::k3Des) {
    retail_mac(key.first<kTwoKeyLen>(), pad(object, w.size(), kDesBlockLen), out);
    return true;
  }
  const Aes aes(key);
  Cmac cmac(aes);
  std::array<uint8_t, Cmac::kMacLen> mac;
  cmac.update(w.written());
  cmac.finish(mac);
  std::copy_n(mac.begin(), out.size(), out.begin());
  return true;
}

// Chip-authentication mapping has the proof of a genuine chip behind the token; the server decides about that
// with other means.
Pace::Result Pace::take_token(Bytes data) {
  Bytes token;
  Bytes rest;
  if (waiting_ != Waiting::kToken || !parse_answer(data, kTagToken, token, rest) ||
      token.size() != expected_token_.size() || !are_objects(rest)) {
    return end(Result::kNonsense);
  }
  return end(ct_equal(token, expected_token_) ? Result::kDone : Result::kWrongKey);
}

}  // namespace tq
