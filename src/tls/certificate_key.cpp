#include "tls/certificate_key.hpp"

#include <algorithm>

#include "util/byte_cursor.hpp"
#include "util/tlv.hpp"

namespace tq::tls {

namespace {

using Bytes = std::span<const uint8_t>;

enum Tag : uint8_t {
  kInteger = 0x02,
  kBitString = 0x03,
  kNull = 0x05,
  kObjectIdentifier = 0x06,
  kSequence = 0x30,
  kVersion = 0xA0,  // [0] EXPLICIT
};

// Exponents in use have 2 to 32 bits. One as long as the modulus would keep the caller busy for a second.
constexpr size_t kMaxExponentLen = 8;

constexpr uint8_t kRsaEncryption[] = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x01};

bool read_any(ByteReader& r, uint8_t& tag, Bytes& value) {
  constexpr uint8_t kTagGoesOn = 0x1F;
  uint32_t len = 0;
  return r.u8(tag) && (tag & kTagGoesOn) != kTagGoesOn &&
         read_length(r, kCertificateLengths, len) == LengthField::kRead && r.take(len, value);
}

bool read(ByteReader& r, Tag expected, Bytes& value) {
  uint8_t tag = 0;
  return read_any(r, tag, value) && tag == expected;
}

bool skip(ByteReader& r, Tag expected) {
  Bytes ignored;
  return read(r, expected, ignored);
}

bool skip_rest(ByteReader& r) {
  uint8_t tag = 0;
  Bytes ignored;
  while (!r.done()) {
    if (!read_any(r, tag, ignored)) return false;
  }
  return true;
}

// A positive INTEGER in its shortest form, without the zero that keeps it positive.
bool read_positive(ByteReader& r, Bytes& magnitude) {
  Bytes value;
  if (!read(r, kInteger, value) || value.empty() || value[0] >= 0x80) return false;
  if (value[0] == 0) {
    value = value.subspan(1);
    if (value.empty() || value[0] < 0x80) return false;
  }
  magnitude = value;
  return true;
}

// The SubjectPublicKeyInfo of a certificate whose parts are where they should be.
bool find_key_info(Bytes certificate, Bytes& key_info) {
  ByteReader outside(certificate);
  Bytes signed_certificate;
  if (!read(outside, kSequence, signed_certificate) || !outside.done()) return false;

  ByteReader parts(signed_certificate);
  Bytes to_be_signed;
  if (!read(parts, kSequence, to_be_signed) || !skip(parts, kSequence) || !skip(parts, kBitString) ||
      !parts.done()) {
    return false;
  }

  ByteReader fields(to_be_signed);
  const bool has_version = !fields.done() && fields.rest()[0] == kVersion;
  if (has_version && !skip(fields, kVersion)) return false;
  return skip(fields, kInteger) &&   // serialNumber
         skip(fields, kSequence) &&  // signature
         skip(fields, kSequence) &&  // issuer
         skip(fields, kSequence) &&  // validity
         skip(fields, kSequence) &&  // subject
         read(fields, kSequence, key_info) && skip_rest(fields);
}

}  // namespace

KeyResult read_certificate_key(Bytes certificate, RsaPublicKey& key) {
  Bytes key_info;
  if (!find_key_info(certificate, key_info)) return KeyResult::kMalformed;

  ByteReader info(key_info);
  Bytes algorithm;
  Bytes bits;
  if (!read(info, kSequence, algorithm) || !read(info, kBitString, bits) || !info.done()) {
    return KeyResult::kMalformed;
  }
  ByteReader identifier(algorithm);
  Bytes oid;
  if (!read(identifier, kObjectIdentifier, oid)) return KeyResult::kMalformed;
  if (!std::equal(oid.begin(), oid.end(), std::begin(kRsaEncryption), std::end(kRsaEncryption))) {
    return KeyResult::kUnsupported;
  }
  Bytes parameters;
  if (!read(identifier, kNull, parameters) || !parameters.empty() || !identifier.done()) {
    return KeyResult::kMalformed;
  }

  ByteReader key_bits(bits);
  uint8_t num_unused = 0;
  Bytes key_fields;
  if (!key_bits.u8(num_unused) || num_unused != 0 || !read(key_bits, kSequence, key_fields) ||
      !key_bits.done()) {
    return KeyResult::kMalformed;
  }
  ByteReader numbers(key_fields);
  RsaPublicKey found{};
  if (!read_positive(numbers, found.modulus) || !read_positive(numbers, found.exponent) || !numbers.done()) {
    return KeyResult::kMalformed;
  }
  if (found.exponent.size() > kMaxExponentLen || !rsa_key_usable(found)) return KeyResult::kUnsupported;
  key = found;
  return KeyResult::kFound;
}

}  // namespace tq::tls
