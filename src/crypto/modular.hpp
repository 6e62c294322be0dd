// Arithmetic modulo odd numbers of any length in Montgomery's form, with 64-bit limbs: what RSA and the
// elliptic curves reckon with.
//
// Neither time nor the addresses touched depend on the values of numbers, only on how many limbs they have;
// except where it is said. x in Montgomery's form is x * R mod n with R = 2^(64 * limbs).
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace tq::modular {

using Limb = uint64_t;
using Number = std::span<Limb>;             // little-endian limbs
using ConstNumber = std::span<const Limb>;  // all of one modulus have the same count

inline constexpr size_t kLimbBits = 64;
inline constexpr size_t kLimbLen = sizeof(Limb);

// From and to big-endian bytes, which may be fewer or more than the limbs have room for; the number is not.
// Storing leaves the bytes as they are where `mask` is 0.
void load_number(std::span<const uint8_t> big_endian, Number out);
void store_number(ConstNumber x, std::span<uint8_t> big_endian, Limb mask = ~Limb{0});

// x += y where `mask` is all ones, x where it is 0. Returns the carry.
Limb add(Number x, ConstNumber y, Limb mask = ~Limb{0});

// x -= y where `mask` is all ones, x where it is 0. Returns the borrow (of what was subtracted).
Limb subtract(Number x, ConstNumber y, Limb mask = ~Limb{0});

// 1 when x < y, else 0.
Limb less(ConstNumber x, ConstNumber y);

// An odd number n of at least two limbs.
struct Modulus {
  explicit Modulus(ConstNumber odd);

  ConstNumber n;
  Limb minus_inverse;  // -1/n modulo 2^64
};

// x * y / R mod n and x * x / R mod n, for factors below n: with one of them in Montgomery's form the plain
// product, with both that product in the form. `out` may not be a factor.
void multiply(const Modulus& modulus, ConstNumber x, ConstNumber y, Number out);
void square(const Modulus& modulus, ConstNumber x, Number out);

// x + y mod n and x - y mod n, for numbers below n. `out` may be one of them.
void add_modulo(const Modulus& modulus, ConstNumber x, ConstNumber y, Number out);
void subtract_modulo(const Modulus& modulus, ConstNumber x, ConstNumber y, Number out);

// R^2 mod n, which brings numbers into Montgomery's form. Only of public numbers: its time depends on them.
// `scaled` is room for a number.
void square_of_radix(ConstNumber n, Number scaled, Number out);

}  // namespace tq::modular
