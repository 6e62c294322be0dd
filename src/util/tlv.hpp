// The length field of a tag-length-value object (ITU-T X.690 section 8.1.3). How much of the standard a
// source is allowed to use differs: each caller names its policy, and says what a field that the policy does
// not take means.
#pragma once

#include <cstddef>
#include <cstdint>

#include "util/byte_cursor.hpp"

namespace tq {

struct LengthPolicy {
  size_t most_bytes;  // behind the first byte of the long form, at most 4
  bool shortest;      // refuses a longer form than needed, as DER does
};
constexpr LengthPolicy kChipLengths = {2, false};  // files and answers of passports: 81 and 82
constexpr LengthPolicy kAnyLengths = {4, false};
constexpr LengthPolicy kCertificateLengths = {3, true};  // no TLS message is longer

enum class LengthField : uint8_t {
  kRead,
  kOdd,  // a form that the policy does not take
  kCut,  // the bytes end before the field does
};

// Reads a length; the value need not be there. Moves nothing unless it has read.
[[nodiscard]] inline LengthField read_length(ByteReader& r, const LengthPolicy& policy, uint32_t& len) {
  ByteReader ahead = r;
  uint8_t first = 0;
  if (!ahead.u8(first)) return LengthField::kCut;
  uint32_t value = first;
  if (first >= 0x80) {
    const size_t width = first & 0x7FU;
    if (width == 0 || width > policy.most_bytes) return LengthField::kOdd;
    if (!ahead.number(width, value)) return LengthField::kCut;
    if (policy.shortest && (value < 0x80 || value >> (8 * (width - 1)) == 0)) return LengthField::kOdd;
  }
  len = value;
  r = ahead;
  return LengthField::kRead;
}

}  // namespace tq
