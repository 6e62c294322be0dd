// Arithmetic in the fields of 256 elements from which the S-boxes of AES and SM4 are made. At compile time
// only: its time depends on the values.
#pragma once

#include <cstdint>

namespace tq::gf256 {

// The polynomials of the two fields, the highest bit x^8.
inline constexpr uint32_t kAes = 0x11B;  // FIPS 197 section 4.2
inline constexpr uint32_t kSm4 = 0x1F5;

template <uint32_t kPolynomial>
constexpr uint8_t multiply(uint8_t a, uint8_t b) {
  uint32_t product = 0;
  for (uint32_t i = 0, shifted = a; i < 8; ++i) {
    if (((b >> i) & 1) != 0) product ^= shifted;
    shifted = shifted << 1 ^ ((shifted & 0x80) != 0 ? kPolynomial : 0);
  }
  return static_cast<uint8_t>(product);
}

template <uint32_t kPolynomial>
constexpr uint8_t power(uint8_t a, uint32_t exponent) {
  uint8_t result = 1;
  for (; exponent != 0; exponent >>= 1) {
    if ((exponent & 1) != 0) result = multiply<kPolynomial>(result, a);
    a = multiply<kPolynomial>(a, a);
  }
  return result;
}

// 1/a, and 0 for 0.
template <uint32_t kPolynomial>
constexpr uint8_t invert(uint8_t a) {
  return power<kPolynomial>(a, 254);
}

}  // namespace tq::gf256
