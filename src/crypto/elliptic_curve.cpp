#include "crypto/elliptic_curve.hpp"

#include <algorithm>
#include <array>

#include "crypto/constant_time.hpp"
#include "util/secret.hpp"

namespace tq {
namespace {

using modular::kLimbBits;
using modular::Limb;

constexpr size_t kWindowBits = 4;
constexpr uint8_t kUncompressed = 0x04;
constexpr CurveNumber kOne = {1};
constexpr CurveNumber kTwo = {2};

using Table = std::array<Curve::Point, 1 << kWindowBits>;

// Reads all of the table.
void pick(const Table& table, size_t index, Curve::Point& out) {
  out = {};
  for (size_t i = 0; i < table.size(); ++i) {
    const Limb mask = equal_mask(i, index);
    for (size_t limb = 0; limb < out.x.size(); ++limb) {
      out.x[limb] |= table[i].x[limb] & mask;
      out.y[limb] |= table[i].y[limb] & mask;
      out.z[limb] |= table[i].z[limb] & mask;
    }
  }
}

// All ones for 0.
Limb zero_mask(const CurveNumber& x) {
  Limb any = 0;
  for (const Limb limb : x) any |= limb;
  return opaque(((any | (0 - any)) >> (kLimbBits - 1)) - 1);
}

}  // namespace

// What an addition has on its way.
struct Curve::Room {
  Element xx, yy, zz, xy, xz, yz;
  Element u, v, w, plus, minus, t;
};

Curve::Curve(const CurveParameters& parameters)
    : parameters_(&parameters),
      num_limbs_((parameters.field_len + modular::kLimbLen - 1) / modular::kLimbLen),
      field_(span_of(parameters.p)),
      order_(span_of(parameters.order)) {
  Element room{};
  modular::square_of_radix(field_.n, span_of(room), span_of(square_of_radix_));
  to_montgomery(kOne, one_);
  to_montgomery(parameters.a, a_);
  to_montgomery(parameters.b, room);
  sum(room, room, b3_);
  sum(b3_, room, b3_);
  to_montgomery(parameters.x, generator_.x);
  to_montgomery(parameters.y, generator_.y);
  generator_.z = one_;
}

void Curve::to_montgomery(const Element& x, Element& out) const {
  mul(x, square_of_radix_, out);
}

void Curve::reduce(std::span<const uint8_t> big_endian, Scalar& out) const {
  Scalar next{};
  const WipeOnExit wipe_next(next);
  out = {};
  for (const uint8_t byte : big_endian) {
    for (int shift = 7; shift >= 0; --shift) {
      next[0] = byte >> shift & 1U;
      modular::add_modulo(order_, span_of(out), span_of(out), span_of(out));
      modular::add_modulo(order_, span_of(out), span_of(next), span_of(out));
    }
  }
}

// J. Renes, C. Costello, L. Batina, "Complete addition formulas for prime order elliptic curves" (2016),
// algorithm 1: it has no exceptions on a curve with an odd number of points.
void Curve::add(const Point& p, const Point& q, Point& out, Room& r) const {
  const auto cross = [this, &r](const Element& p1, const Element& p2, const Element& q1, const Element& q2,
                                const Element& product1, const Element& product2, Element& result) {
    sum(p1, p2, r.u);  // p1 * q2 + p2 * q1
    sum(q1, q2, r.v);
    mul(r.u, r.v, result);
    difference(result, product1, result);
    difference(result, product2, result);
  };
  mul(p.x, q.x, r.xx);
  mul(p.y, q.y, r.yy);
  mul(p.z, q.z, r.zz);
  cross(p.x, p.y, q.x, q.y, r.xx, r.yy, r.xy);
  cross(p.x, p.z, q.x, q.z, r.xx, r.zz, r.xz);
  cross(p.y, p.z, q.y, q.z, r.yy, r.zz, r.yz);

  mul(a_, r.xz, r.u);  // u = a xz + 3b zz
  mul(b3_, r.zz, r.t);
  sum(r.u, r.t, r.u);
  difference(r.yy, r.u, r.minus);
  sum(r.yy, r.u, r.plus);

  mul(a_, r.zz, r.t);  // v = 3b xz + a (xx - a zz), w = 3 xx + a zz
  sum(r.xx, r.xx, r.w);
  sum(r.w, r.xx, r.w);
  sum(r.w, r.t, r.w);
  difference(r.xx, r.t, r.xx);
  mul(a_, r.xx, r.v);
  mul(b3_, r.xz, r.t);
  sum(r.v, r.t, r.v);

  mul(r.xy, r.minus, out.x);
  mul(r.yz, r.v, r.t);
  difference(out.x, r.t, out.x);
  mul(r.plus, r.minus, out.y);
  mul(r.w, r.v, r.t);
  sum(out.y, r.t, out.y);
  mul(r.yz, r.plus, out.z);
  mul(r.xy, r.w, r.t);
  sum(out.z, r.t, out.z);
}

void Curve::add(const Point& p, const Point& q, Point& out) const {
  Room room{};
  const WipeOnExit wipe_room(room);
  add(p, q, out, room);
}

// D. Bernstein, T. Lange, Explicit-Formulas Database, dbl-2007-bl: for all points but the neutral one, whose
// double has a y of 0 with it. That is made good.
void Curve::double_point(const Point& p, Point& out, Room& r) const {
  const Limb neutral = zero_mask(p.z);
  mul(p.x, p.x, r.xx);
  mul(p.z, p.z, r.zz);
  mul(a_, r.zz, r.w);  // w = a zz + 3 xx
  sum(r.w, r.xx, r.w);
  sum(r.w, r.xx, r.w);
  sum(r.w, r.xx, r.w);
  mul(p.y, p.z, r.yz);  // s = 2 yz
  sum(r.yz, r.yz, r.yz);
  mul(r.yz, r.yz, r.zz);
  mul(p.y, r.yz, r.t);
  mul(r.t, r.t, r.yy);
  mul(p.x, r.t, r.u);  // B = 2 xys
  sum(r.u, r.u, r.u);
  mul(r.w, r.w, r.v);  // h = w^2 - 2 B
  difference(r.v, r.u, r.v);
  difference(r.v, r.u, r.v);

  mul(r.v, r.yz, out.x);
  difference(r.u, r.v, r.u);
  mul(r.w, r.u, out.y);
  difference(out.y, r.yy, out.y);
  difference(out.y, r.yy, out.y);
  mul(r.yz, r.zz, out.z);
  for (size_t i = 0; i < num_limbs_; ++i) out.y[i] |= one_[i] & neutral;
}

void Curve::multiply(const Scalar& scalar, const Point& p, Point& out) const {
  Room room{};
  Table table{};
  Point picked{};
  const WipeOnExit wipe_room(room);
  const WipeOnExit wipe_table(table);
  const WipeOnExit wipe_picked(picked);
  table[0] = {{}, one_, {}};
  for (size_t i = 1; i < table.size(); ++i) add(table[i - 1], p, table[i], room);

  out = table[0];
  constexpr size_t windows_per_limb = kLimbBits / kWindowBits;
  for (size_t i = 8 * field_len() / kWindowBits; i-- > 0;) {
    for (size_t bit = 0; bit < kWindowBits; ++bit) double_point(out, out, room);
    const Limb window = scalar[i / windows_per_limb] >> (kWindowBits * (i % windows_per_limb));
    pick(table, window % table.size(), picked);
    add(out, picked, out, room);
  }
}

// x^(p - 2), which is 1/x, and 0 for 0. The exponent is public.
void Curve::invert(const Element& x, Element& out) const {
  Element exponent = parameters_->p;
  modular::subtract(span_of(exponent), span_of(kTwo));
  Element next{};
  const WipeOnExit wipe_next(next);
  out = one_;
  for (size_t i = kLimbBits * num_limbs_; i-- > 0;) {
    modular::square(field_, span_of(out), span_of(next));
    if ((exponent[i / kLimbBits] >> (i % kLimbBits) & 1) != 0) {
      mul(next, x, out);
    } else {
      out = next;
    }
  }
}

// Three times both sides.
bool Curve::on_curve(const Element& x, const Element& y) const {
  Element square{};
  Element left{};
  Element right{};
  mul(y, y, square);
  sum(square, square, left);
  sum(left, square, left);
  mul(x, x, square);
  sum(square, a_, square);
  mul(square, x, right);
  sum(right, right, square);
  sum(square, right, square);
  sum(square, b3_, square);
  return left == square;
}

bool Curve::decode(std::span<const uint8_t> encoded, Point& out) const {
  if (encoded.size() != point_len() || encoded.front() != kUncompressed) return false;
  Element x{};
  Element y{};
  modular::load_number(encoded.subspan(1, field_len()), span_of(x));
  modular::load_number(encoded.last(field_len()), span_of(y));
  if (modular::less(span_of(x), field_.n) == 0 || modular::less(span_of(y), field_.n) == 0) return false;
  Point point = {{}, {}, one_};
  to_montgomery(x, point.x);
  to_montgomery(y, point.y);
  if (!on_curve(point.x, point.y)) return false;
  out = point;
  return true;
}

bool Curve::encode(const Point& p, std::span<uint8_t> out) const {
  Element inverse{};
  Element in_form{};
  Element plain{};
  const WipeOnExit wipe_inverse(inverse);
  const WipeOnExit wipe_in_form(in_form);
  const WipeOnExit wipe_plain(plain);
  invert(p.z, inverse);
  out[0] = kUncompressed;
  mul(p.x, inverse, in_form);
  mul(in_form, kOne, plain);
  modular::store_number(span_of(plain), out.subspan(1, field_len()));
  mul(p.y, inverse, in_form);
  mul(in_form, kOne, plain);
  modular::store_number(span_of(plain), out.subspan(1 + field_len(), field_len()));
  return zero_mask(p.z) == 0;
}

}  // namespace tq
