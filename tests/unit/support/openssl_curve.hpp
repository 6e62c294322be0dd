// OpenSSL's arithmetic on the named curves.
#pragma once

#include <openssl/bn.h>
#include <openssl/ec.h>

#include <memory>

#include "support/bytes.hpp"

namespace test {

class OpenSslCurve {
 public:
  explicit OpenSslCurve(int nid) : group_(EC_GROUP_new_by_curve_name(nid), EC_GROUP_free) {}

  size_t field_len() const { return (static_cast<size_t>(EC_GROUP_get_degree(group_.get())) + 7) / 8; }

  bool has(const Bytes& point) const {
    const Point p(EC_POINT_new(group_.get()), EC_POINT_free);
    return EC_POINT_oct2point(group_.get(), p.get(), point.data(), point.size(), ctx_.get()) == 1;
  }

  // The big-endian factor times a point (none: the generator), plus another one; encoded, empty for the
  // neutral.
  Bytes product(const Bytes& factor, const Bytes& base, const Bytes& summand = {}) const {
    const Point point =
        base.empty() ? Point(EC_POINT_dup(EC_GROUP_get0_generator(group_.get()), group_.get()), EC_POINT_free)
                     : decoded(base);
    const Number n(BN_bin2bn(factor.data(), static_cast<int>(factor.size()), nullptr), BN_free);
    EC_POINT_mul(group_.get(), point.get(), nullptr, point.get(), n.get(), ctx_.get());
    if (!summand.empty()) {
      EC_POINT_add(group_.get(), point.get(), point.get(), decoded(summand).get(), ctx_.get());
    }
    return encoded(point);
  }

  Bytes order_plus(int step) const {
    const Number n(BN_dup(EC_GROUP_get0_order(group_.get())), BN_free);
    step < 0 ? BN_sub_word(n.get(), static_cast<BN_ULONG>(-step))
             : BN_add_word(n.get(), static_cast<BN_ULONG>(step));
    return bytes(n);
  }

  // The smallest x that there is a point for.
  Bytes point_of_small_coordinate() const {
    const Point point(EC_POINT_new(group_.get()), EC_POINT_free);
    const Number x(BN_new(), BN_free);
    while (EC_POINT_set_compressed_coordinates(group_.get(), point.get(), x.get(), 0, ctx_.get()) != 1) {
      BN_add_word(x.get(), 1);
    }
    return encoded(point);
  }

  // The same point, but for its form. Empty where x + p has no room.
  Bytes with_p_added_to_x(const Bytes& point) const {
    const Number sum(BN_bin2bn(&point[1], static_cast<int>(field_len()), nullptr), BN_free);
    BN_add(sum.get(), sum.get(), EC_GROUP_get0_field(group_.get()));
    const Bytes x = bytes(sum);
    return x.empty() ? x : Bytes{4} + x + slice(point, 1 + field_len(), point.size());
  }

 private:
  using Point = std::unique_ptr<EC_POINT, void (*)(EC_POINT*)>;
  using Number = std::unique_ptr<BIGNUM, void (*)(BIGNUM*)>;

  Bytes bytes(const Number& n) const {
    Bytes out(field_len());
    return BN_bn2binpad(n.get(), out.data(), static_cast<int>(out.size())) < 0 ? Bytes() : out;
  }
  Point decoded(const Bytes& encoded) const {
    Point point(EC_POINT_new(group_.get()), EC_POINT_free);
    EC_POINT_oct2point(group_.get(), point.get(), encoded.data(), encoded.size(), ctx_.get());
    return point;
  }
  Bytes encoded(const Point& point) const {
    if (EC_POINT_is_at_infinity(group_.get(), point.get()) == 1) return {};
    Bytes out(1 + 2 * field_len());
    EC_POINT_point2oct(group_.get(), point.get(), POINT_CONVERSION_UNCOMPRESSED, out.data(), out.size(),
                       ctx_.get());
    return out;
  }

  std::unique_ptr<EC_GROUP, void (*)(EC_GROUP*)> group_;
  std::unique_ptr<BN_CTX, void (*)(BN_CTX*)> ctx_{BN_CTX_new(), BN_CTX_free};
};

}  // namespace test
