#include "crypto/elliptic_curve.hpp"

#include <gtest/gtest.h>
#include <openssl/obj_mac.h>

#include <random>

#include "support/bytes.hpp"
#include "support/openssl_curve.hpp"

namespace {

using namespace test;
using tq::Curve;

struct Named {
  const tq::CurveParameters& parameters;
  int nid;
};
const Named kCurves[] = {
    {tq::curves::kP224, NID_secp224r1},
    {tq::curves::kP256, NID_X9_62_prime256v1},
    {tq::curves::kP384, NID_secp384r1},
    {tq::curves::kP521, NID_secp521r1},
    {tq::curves::kBrainpool224, NID_brainpoolP224r1},
    {tq::curves::kBrainpool256, NID_brainpoolP256r1},
    {tq::curves::kBrainpool320, NID_brainpoolP320r1},
    {tq::curves::kBrainpool384, NID_brainpoolP384r1},
    {tq::curves::kBrainpool512, NID_brainpoolP512r1},
};

// Empty for the neutral point.
Bytes encoded(const Curve& curve, const Curve::Point& point) {
  Bytes bytes(curve.point_len());
  return curve.encode(point, bytes) ? bytes : Bytes();
}

Bytes product(const Curve& curve, const Bytes& factor, const Curve::Point& point) {
  tq::Scalar scalar{};
  Curve::Point out = point;
  curve.reduce(factor, scalar);
  curve.multiply(scalar, out, out);
  return encoded(curve, out);
}

// Random factors, and those about the order and with long runs of zeros and ones.
TEST(EllipticCurve, ProductsAgreeWithOpenSsl) {
  std::mt19937 generator(9303);
  for (const Named& named : kCurves) {
    const OpenSslCurve peer(named.nid);
    const Curve curve(named.parameters);
    ASSERT_EQ(encoded(curve, curve.generator()), peer.product({1}, {})) << named.nid;
    const size_t len = curve.field_len();
    std::vector<Bytes> factors = {{}, {0}, {1}, {2}, {15}, {16}, Bytes(len, 0xFF), Bytes(len + 8, 0xFF)};
    for (const int step : {-1, 0, 1, 2}) factors.push_back(peer.order_plus(step));
    for (const size_t n : {size_t{16}, size_t{32}, len - 1, len, len, len + 8})
      factors.push_back(random_bytes(generator, n));
    for (const Bytes& factor : factors) {
      const Bytes base = peer.product(random_bytes(generator, len), {});
      Curve::Point point{};
      ASSERT_TRUE(curve.decode(base, point));
      ASSERT_EQ(product(curve, factor, point), peer.product(factor, base)) << hex(factor);
    }
  }
}

// One rule for all of them: sums of different points, of equal ones, of opposites, with the neutral point.
TEST(EllipticCurve, SumsHaveNoExceptions) {
  for (const Named& named : kCurves) {
    const OpenSslCurve peer(named.nid);
    const Curve curve(named.parameters);
    Curve::Point multiples[5];  // -2 to 2 times the generator
    for (int i = -2; i <= 2; ++i) {
      tq::Scalar scalar{};
      curve.reduce(peer.order_plus(i), scalar);
      curve.multiply(scalar, curve.generator(), multiples[i + 2]);
    }
    for (int i = -2; i <= 2; ++i) {
      for (int j = -2; j <= i; ++j) {
        Curve::Point sum = multiples[i + 2];
        curve.add(sum, multiples[j + 2], sum);
        ASSERT_EQ(encoded(curve, sum), peer.product(peer.order_plus(i + j), {})) << i << " + " << j;
      }
    }
  }
}

TEST(EllipticCurve, WhatIsNoPointIsRefused) {
  for (const Named& named : kCurves) {
    const OpenSslCurve peer(named.nid);
    const Curve curve(named.parameters);
    const size_t len = curve.field_len();
    const Bytes good = peer.product({7}, {});
    Curve::Point point{};
    ASSERT_TRUE(curve.decode(good, point));
    const auto refused = [&](const Bytes& bytes) {
      return !curve.decode(exact_copy(bytes, bytes.size()), point);
    };
    for (size_t n = 0; n < good.size(); ++n) EXPECT_TRUE(refused(slice(good, 0, n))) << n;
    EXPECT_TRUE(refused(good + Bytes{0}));
    for (size_t bit = 0; bit < 8 * good.size(); ++bit) {
      Bytes bad = good;
      bad[bit / 8] ^= static_cast<uint8_t>(1U << bit % 8);
      EXPECT_TRUE(refused(bad)) << bit;
    }
    EXPECT_TRUE(refused(Bytes(good.size()))) << "what the neutral point might look like";
    EXPECT_TRUE(refused(Bytes{4} + Bytes(2 * len)));
    // Coordinates that are in the field only when they are reduced.
    const Bytes small = peer.point_of_small_coordinate();
    ASSERT_EQ(refused(small), false);
    EXPECT_TRUE(refused(peer.with_p_added_to_x(small)));
    EXPECT_EQ(encoded(curve, point), small) << "the refused leave it as it was";
  }
}

}  // namespace
