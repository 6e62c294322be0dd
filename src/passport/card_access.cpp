#include "passport/card_access.hpp"

#include <algorithm>
#include <utility>

#include "util/byte_cursor.hpp"
#include "util/tlv.hpp"

namespace tq {
namespace {

using Bytes = std::span<const uint8_t>;

constexpr uint8_t kSet = 0x31;
constexpr uint8_t kSequence = 0x30;
constexpr uint8_t kObjectIdentifier = 0x06;
constexpr uint8_t kInteger = 0x02;
constexpr uint8_t kVersion = 2;

// ICAO 9303-11 section 9.2.1: the beginning of the identifiers, then mapping and cipher.
constexpr std::array<uint8_t, 8> kPace = {0x04, 0x00, 0x7F, 0x00, 0x07, 0x02, 0x02, 0x04};
constexpr uint8_t kGenericMapping = 2;  // of elliptic curves
constexpr uint8_t kChipAuthenticationMapping = 6;

struct Cipher {
  uint8_t id;
  CipherSuite suite;
  size_t strength;  // in bits
};
constexpr Cipher kCiphers[] = {{1, CipherSuite::k3Des, 112},
                               {2, CipherSuite::kAes128, 128},
                               {3, CipherSuite::kAes192, 192},
                               {4, CipherSuite::kAes256, 256}};

// Section 9.5.1.
struct Domain {
  uint8_t id;
  const CurveParameters* curve;
};
constexpr Domain kDomains[] = {
    {10, &curves::kP224},         {11, &curves::kBrainpool224}, {12, &curves::kP256},
    {13, &curves::kBrainpool256}, {14, &curves::kBrainpool320}, {15, &curves::kP384},
    {16, &curves::kBrainpool384}, {17, &curves::kBrainpool512}, {18, &curves::kP521}};

[[nodiscard]] bool take_object(ByteReader& r, uint8_t& tag, Bytes& value) {
  uint32_t len = 0;
  return r.u8(tag) && read_length(r, kChipLengths, len) == LengthField::kRead && r.take(len, value);
}

[[nodiscard]] bool take_object_of(ByteReader& r, uint8_t expected, Bytes& value) {
  uint8_t tag = 0;
  return take_object(r, tag, value) && tag == expected;
}

[[nodiscard]] bool take_small_number(ByteReader& r, uint8_t& number) {
  Bytes value;
  if (!take_object_of(r, kInteger, value) || value.size() != 1) return false;
  number = value[0];
  return true;
}

// PACEInfo: identifier, version, number of the domain parameters.
struct PaceInfo {
  PaceProtocol protocol;
  uint8_t domain;
};

bool parse_pace_info(Bytes info, PaceInfo& out) {
  ByteReader r(info);
  Bytes identifier;
  uint8_t version = 0;
  PaceInfo parsed{};
  if (!take_object_of(r, kObjectIdentifier, identifier) || identifier.size() != parsed.protocol.size() ||
      !std::equal(kPace.begin(), kPace.end(), identifier.begin())) {
    return false;
  }
  if (!take_small_number(r, version) || version != kVersion || !take_small_number(r, parsed.domain))
    return false;
  std::copy(identifier.begin(), identifier.end(), parsed.protocol.begin());
  out = parsed;
  return true;
}

// A way that is ours, or one without a curve.
PaceOffer offer_of(const PaceInfo& info) {
  const uint8_t mapping = info.protocol[kPace.size()];
  const uint8_t cipher_id = info.protocol[kPace.size() + 1];
  const auto* const cipher = std::find_if(std::begin(kCiphers), std::end(kCiphers),
                                          [cipher_id](const Cipher& c) { return c.id == cipher_id; });
  const auto* const domain = std::find_if(std::begin(kDomains), std::end(kDomains),
                                          [&info](const Domain& d) { return d.id == info.domain; });
  if ((mapping != kGenericMapping && mapping != kChipAuthenticationMapping) || cipher == std::end(kCiphers) ||
      domain == std::end(kDomains)) {
    return {};
  }
  return {info.protocol, cipher->suite, domain->curve, domain->id, false};
}

// A chain is as strong as its weaker part; then the longer key counts, then the longer curve.
std::array<size_t, 3> strength(const PaceOffer& offer) {
  const size_t of_cipher = kCiphers[static_cast<size_t>(offer.suite)].strength;
  const size_t of_curve = offer.curve->field_len * 4;
  return {std::min(of_cipher, of_curve), of_cipher, of_curve};
}

}  // namespace

std::optional<PaceOffer> strongest_pace(std::span<const uint8_t> card_access) {
  ByteReader file(card_access);
  Bytes set;
  if (!take_object_of(file, kSet, set)) return std::nullopt;
  std::optional<PaceOffer> best;
  std::optional<uint8_t> first_domain;
  bool ambiguous = false;
  for (ByteReader infos(set); !infos.done();) {
    uint8_t tag = 0;
    Bytes content;
    PaceInfo info{};
    if (!take_object(infos, tag, content)) return std::nullopt;
    if (tag != kSequence || !parse_pace_info(content, info)) continue;
    ambiguous = ambiguous || info.domain != first_domain.value_or(info.domain);
    first_domain = info.domain;
    const PaceOffer offer = offer_of(info);
    if (offer.curve != nullptr && (!best || strength(*best) < strength(offer))) best = offer;
  }
  if (best) best->ambiguous = ambiguous;
  return best;
}

}  // namespace tq
