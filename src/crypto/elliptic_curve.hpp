// Points of an elliptic curve over a prime field, y^2 = x^3 + ax + b, with a prime number of points.
//
// Neither time nor the addresses touched depend on scalars or points: addition and doubling know no
// exceptions, the neutral point and equal ones among them, and a scalar is worked through in windows of four
// bits whose table is read from end to end. What is done with a bool that a function returns is the caller's.
// Nothing secret stays behind on the stack; scalars and points that secrets went into are wiped by who owns
// them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "crypto/curve_parameters.hpp"
#include "crypto/modular.hpp"

namespace tq {

using Scalar = CurveNumber;  // below the order

inline constexpr size_t kMaxPointLen = 1 + 2 * kMaxFieldLen;

class Curve {
 public:
  using Element = CurveNumber;  // of the field, in Montgomery's form

  // x/z and y/z; the neutral point has a z of 0.
  struct Point {
    Element x;
    Element y;
    Element z;
  };

  // The parameters outlive the curve.
  explicit Curve(const CurveParameters& parameters);

  size_t field_len() const { return parameters_->field_len; }
  size_t point_len() const { return 1 + 2 * field_len(); }  // of an encoded one
  const Point& generator() const { return generator_; }

  // A big-endian number of any length modulo the order. Random bytes come out evenly spread when they are
  // eight more than field_len(): what is left of a bias is below 2^-64 (FIPS 186-5 appendix A.2.1).
  void reduce(std::span<const uint8_t> big_endian, Scalar& out) const;

  // `out` may be a summand or the factor.
  void add(const Point& p, const Point& q, Point& out) const;
  void multiply(const Scalar& scalar, const Point& p, Point& out) const;

  // A point as 04, x, y (BSI TR-03111 section 3.2.1). Decoding refuses what is not of that form, not in the
  // field or not on the curve, and then leaves `out` as it was; the neutral point has no such form. Encoding
  // needs point_len() bytes and returns false for the neutral point.
  [[nodiscard]] bool decode(std::span<const uint8_t> encoded, Point& out) const;
  [[nodiscard]] bool encode(const Point& p, std::span<uint8_t> out) const;

 private:
  struct Room;

  void add(const Point& p, const Point& q, Point& out, Room& room) const;
  void double_point(const Point& p, Point& out, Room& room) const;
  void invert(const Element& x, Element& out) const;
  void to_montgomery(const Element& x, Element& out) const;
  bool on_curve(const Element& x, const Element& y) const;

  modular::ConstNumber span_of(const Element& x) const { return modular::ConstNumber(x).first(num_limbs_); }
  modular::Number span_of(Element& x) const { return modular::Number(x).first(num_limbs_); }
  void mul(const Element& x, const Element& y, Element& out) const {
    modular::multiply(field_, span_of(x), span_of(y), span_of(out));
  }
  void sum(const Element& x, const Element& y, Element& out) const {
    modular::add_modulo(field_, span_of(x), span_of(y), span_of(out));
  }
  void difference(const Element& x, const Element& y, Element& out) const {
    modular::subtract_modulo(field_, span_of(x), span_of(y), span_of(out));
  }

  const CurveParameters* parameters_;
  size_t num_limbs_;
  modular::Modulus field_;
  modular::Modulus order_;
  Element square_of_radix_{};
  Element one_{};
  Element a_{};
  Element b3_{};  // 3b
  Point generator_{};
};

}  // namespace tq
