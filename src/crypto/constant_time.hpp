// Arithmetic whose time and addresses do not depend on the values, where a branch would tell a secret by its
// time. A mask is all ones for true and zero for false. Numbers are below half of what size_t holds: lengths,
// places.
#pragma once

#include <climits>
#include <cstddef>
#include <cstdint>
#include <span>

namespace tq {

using Mask = size_t;

// The value, whose origin the compiler no longer knows: it cannot make a branch of what is done with it.
template <typename Word>
Word opaque(Word value) {
  __asm__("" : "+r"(value));
  return value;
}

// Nothing is known of the numbers either, or an address in a loop may be counted from the secret one.
inline Mask less_mask(size_t a, size_t b) {
  return opaque(size_t{0} - ((opaque(a) - opaque(b)) >> (sizeof(size_t) * CHAR_BIT - 1)));
}

inline Mask at_most_mask(size_t a, size_t b) {
  return ~less_mask(b, a);
}

inline Mask equal_mask(size_t a, size_t b) {
  return ~less_mask(0, a ^ b);
}

// Whether two strings of bytes of one (public) length are equal; all of both is looked at.
inline Mask equal_mask(std::span<const uint8_t> a, std::span<const uint8_t> b) {
  if (a.size() != b.size()) return 0;
  size_t difference = 0;
  for (size_t i = 0; i < a.size(); ++i) difference |= static_cast<size_t>(a[i] ^ b[i]);
  return equal_mask(difference, 0);
}

inline bool ct_equal(std::span<const uint8_t> a, std::span<const uint8_t> b) {
  return equal_mask(a, b) != 0;
}

}  // namespace tq
