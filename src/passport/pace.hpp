// Password Authenticated Connection Establishment (ICAO Doc 9303-11 section 4.4) with the key of the
// machine-readable zone: agreement of keys on an elliptic curve with generic mapping. The terminal's side,
// without knowledge of who carries its commands.
//
//   Pace pace(*strongest_pace(card_access), mrz_digest);
//   Pace::Result result = pace.begin();              // send pace.command(), and so on while it is kNext
//   result = pace.take_acceptance(data);             // with the data of each answer that says 90 00
//   result = pace.take_nonce(data, random);          // Pace::kRandomLen fresh random bytes
//   result = pace.take_mapping_key(data, random);    // and other ones
//   result = pace.take_public_key(data);
//   result = pace.take_token(data);                  // kDone: channel.start(pace.keys(), 16 bytes of zeros)
//   result = pace.take_refusal();                    // instead of any of them, for every other answer
//
// A call out of turn is nonsense. Whatever the end, everything secret is wiped, but for the keys at a good
// end; those with the object.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "crypto/elliptic_curve.hpp"
#include "passport/card_access.hpp"
#include "passport/secure_channel.hpp"
#include "util/secret.hpp"

namespace tq {

class Pace {
 public:
  enum class Result : uint8_t {
    kNext,      // command() is to be sent
    kDone,      // the chip is open; the counter of its channel starts at zero
    kWrongKey,  // the chip has another machine-readable zone, or is not the one that we agreed on keys with
    kNonsense,  // the chip does not speak as it should
  };

  static constexpr size_t kPasswordLen = 20;              // SHA-1 of the MRZ information, section 4.4.3.3
  static constexpr size_t kRandomLen = kMaxFieldLen + 8;  // for one private key

  Pace(const PaceOffer& offer, std::span<const uint8_t, kPasswordLen> password);
  ~Pace() { wipe_secrets(); }
  Pace(const Pace&) = delete;
  Pace& operator=(const Pace&) = delete;

  Result begin();
  Result take_acceptance(std::span<const uint8_t> data);
  Result take_nonce(std::span<const uint8_t> data, std::span<const uint8_t, kRandomLen> random);
  Result take_mapping_key(std::span<const uint8_t> data, std::span<const uint8_t, kRandomLen> random);
  Result take_public_key(std::span<const uint8_t> data);
  Result take_token(std::span<const uint8_t> data);
  Result take_refusal();

  std::span<const uint8_t> command() const { return std::span(command_).first(command_len_); }
  const SessionKeys& keys() const { return keys_; }

 private:
  using Bytes = std::span<const uint8_t>;
  using EncodedPoint = std::array<uint8_t, kMaxPointLen>;
  using Token = std::array<uint8_t, 8>;

  enum class Waiting : uint8_t { kBegin, kAcceptance, kNonce, kMappingKey, kPublicKey, kToken, kNothing };

  static constexpr size_t kCommandMax = 5 + 3 + 3 + kMaxPointLen + 1;

  Result next(Waiting waiting);
  Result end(Result result);
  Result authenticate(uint8_t tag, Bytes value, Waiting waiting);
  bool decrypt_nonce(Bytes nonce, std::span<uint8_t> out) const;
  bool make_key_pair(const Curve::Point& base, Bytes random);
  bool compute_token(Bytes public_key, Token& out) const;
  Bytes own_key() const { return Bytes(own_key_).first(curve_.point_len()); }
  void wipe_secrets();

  PaceOffer offer_;
  Curve curve_;
  Waiting waiting_ = Waiting::kBegin;
  std::array<uint8_t, kCommandMax> command_{};
  size_t command_len_ = 0;
  EncodedPoint own_key_{};  // the public key that was sent last
  Scalar own_secret_{};
  Scalar nonce_{};
  Secret<32> password_key_;
  SessionKeys keys_;
  Token expected_token_{};
};

}  // namespace tq
