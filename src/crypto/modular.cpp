#include "crypto/modular.hpp"

#include <algorithm>
#include <bit>

#include "crypto/constant_time.hpp"

namespace tq::modular {
namespace {

using Wide = unsigned __int128;

constexpr Limb kAllOnes = ~Limb{0};

constexpr Limb low_limb(Wide x) {
  return static_cast<Limb>(x);
}
constexpr Limb high_limb(Wide x) {
  return static_cast<Limb>(x >> kLimbBits);
}

// Newton's iteration: an odd n is its own inverse modulo 8, and each step doubles the bits that are right.
Limb minus_inverse(Limb n) {
  Limb inverse = n;
  for (size_t right_bits = 3; right_bits < kLimbBits; right_bits *= 2) inverse *= 2 - n * inverse;
  return ~inverse + 1;
}

// The sum of one column of a long multiplication. Low and high limbs of the products are summed up apart,
// so that there is no carry to look after; a column has at most 3 * 128 products.
class Column {
 public:
  [[gnu::always_inline]] void add_product(Limb a, Limb b) {
    const Wide product = Wide{a} * b;
    low_ += low_limb(product);
    high_ += high_limb(product);
  }
  void add_double(const Column& other) {
    low_ += other.low_ * 2;
    high_ += other.high_ * 2;
  }
  Limb lowest() const { return low_limb(low_); }
  void move_on() {  // to the next column
    low_ = high_limb(low_) + high_;
    high_ = 0;
  }

 private:
  Wide low_ = 0;
  Wide high_ = 0;
};

// Adds a[from] * b[column - from] and so on to a[to - 1] * b[column - to + 1].
[[gnu::always_inline]] inline void add_products(Column& sum, ConstNumber a, ConstNumber b, size_t column,
                                                size_t from, size_t to) {
  if (from >= to) return;
  const Limb* x = a.data() + from;
  const Limb* y = b.data() + (column - from);
  for (size_t n = 0; n < to - from; ++n) sum.add_product(x[n], *(y - n));
}

// The column of a * b.
struct Multiply {
  ConstNumber a;
  ConstNumber b;
  void add_to(Column& sum, size_t column, size_t from, size_t to) const {
    add_products(sum, a, b, column, from, to);
  }
};

// The column of a * a, where the products but the middle one come in pairs.
struct Square {
  ConstNumber a;
  void add_to(Column& sum, size_t column, size_t from, size_t /*to*/) const {
    const size_t middle = (column + 1) / 2;
    Column half;
    add_products(half, a, a, column, from, middle);
    sum.add_double(half);
    if (column % 2 == 0) sum.add_product(a[middle], a[middle]);
  }
};

// product / R mod n, into `out`, column by column (Montgomery's method in the form called finely integrated
// product scanning). The multiples of n that make the low half vanish are kept in `out`, and the result takes
// their places as they come free. `out` may not be a factor.
template <typename Product>
void montgomery(const Modulus& modulus, const Product& product, Number out) {
  const size_t size = out.size();
  Column sum;
  for (size_t i = 0; i < size; ++i) {
    product.add_to(sum, i, 0, i + 1);
    add_products(sum, out, modulus.n, i, 0, i);
    out[i] = sum.lowest() * modulus.minus_inverse;
    sum.add_product(out[i], modulus.n[0]);
    sum.move_on();
  }
  for (size_t i = size; i < 2 * size; ++i) {
    if (i < 2 * size - 1) {
      product.add_to(sum, i, i - size + 1, size);
      add_products(sum, out, modulus.n, i, i - size + 1, size);
    }
    out[i - size] = sum.lowest();
    sum.move_on();
  }
  // The sum is below 2n. It is n or more when it has a carry or does not borrow.
  const Limb keep = opaque(less(out, modulus.n) & (sum.lowest() ^ 1));
  subtract(out, modulus.n, keep - 1);
}

// r * 2^64 mod d, for r < d with the highest bit of d set: one step of long division (Knuth,
// algorithm 4.3.1D).
void shift_in_limb(ConstNumber d, Number r) {
  const size_t last = d.size() - 1;
  Limb top = r[last];
  std::copy_backward(r.begin(), r.end() - 1, r.end());
  r[0] = 0;
  // The digit from the highest limbs alone is at most 2 too large.
  const Limb digit = top < d[last] ? low_limb((Wide{top} << kLimbBits | r[last]) / d[last]) : kAllOnes;
  Limb carry = 0;
  for (size_t i = 0; i <= last; ++i) {
    const Wide product = Wide{digit} * d[i] + carry;
    carry = high_limb(product) + (r[i] < low_limb(product) ? 1 : 0);
    r[i] -= low_limb(product);
  }
  top -= carry;
  while (top != 0) top += add(r, d);
}

}  // namespace

void load_number(std::span<const uint8_t> big_endian, Number out) {
  std::fill(out.begin(), out.end(), 0);
  for (size_t i = 0; i < big_endian.size(); ++i) {
    out[i / kLimbLen] |= Limb{big_endian[big_endian.size() - 1 - i]} << (8 * (i % kLimbLen));
  }
}

void store_number(ConstNumber x, std::span<uint8_t> big_endian, Limb mask) {
  for (size_t i = 0; i < big_endian.size(); ++i) {
    uint8_t& byte = big_endian[big_endian.size() - 1 - i];
    const Limb limb = (x[i / kLimbLen] >> (8 * (i % kLimbLen)) & mask) | (byte & ~mask);
    byte = static_cast<uint8_t>(limb);
  }
}

Limb add(Number x, ConstNumber y, Limb mask) {
  Limb carry = 0;
  for (size_t i = 0; i < x.size(); ++i) {
    const Wide sum = Wide{x[i]} + (y[i] & mask) + carry;
    x[i] = low_limb(sum);
    carry = high_limb(sum);
  }
  return carry;
}

Limb subtract(Number x, ConstNumber y, Limb mask) {
  Limb borrow = 0;
  for (size_t i = 0; i < x.size(); ++i) {
    const Wide difference = Wide{x[i]} - (y[i] & mask) - borrow;
    x[i] = low_limb(difference);
    borrow = high_limb(difference) & 1;
  }
  return borrow;
}

Limb less(ConstNumber x, ConstNumber y) {
  Limb borrow = 0;
  for (size_t i = 0; i < x.size(); ++i) borrow = high_limb(Wide{x[i]} - y[i] - borrow) & 1;
  return borrow;
}

Modulus::Modulus(ConstNumber odd) : n(odd), minus_inverse(modular::minus_inverse(odd[0])) {}

void multiply(const Modulus& modulus, ConstNumber x, ConstNumber y, Number out) {
  montgomery(modulus, Multiply{x, y}, out);
}

void square(const Modulus& modulus, ConstNumber x, Number out) {
  montgomery(modulus, Square{x}, out);
}

void add_modulo(const Modulus& modulus, ConstNumber x, ConstNumber y, Number out) {
  Limb carry = 0;
  Limb borrow = 0;
  for (size_t i = 0; i < out.size(); ++i) {
    const Wide sum = Wide{x[i]} + y[i] + carry;
    carry = high_limb(sum);
    out[i] = low_limb(sum);
    borrow = high_limb(Wide{out[i]} - modulus.n[i] - borrow) & 1;
  }
  subtract(out, modulus.n, opaque((borrow & (carry ^ 1)) - 1));
}

void subtract_modulo(const Modulus& modulus, ConstNumber x, ConstNumber y, Number out) {
  Limb borrow = 0;
  for (size_t i = 0; i < out.size(); ++i) {
    const Wide difference = Wide{x[i]} - y[i] - borrow;
    borrow = high_limb(difference) & 1;
    out[i] = low_limb(difference);
  }
  add(out, modulus.n, opaque(0 - borrow));
}

void square_of_radix(ConstNumber n, Number scaled, Number out) {
  const size_t last = n.size() - 1;
  const int shift = std::countl_zero(n[last]);
  const auto shifted_in = [shift](Limb lower) {
    return shift == 0 ? 0 : lower >> (kLimbBits - static_cast<size_t>(shift));
  };
  for (size_t i = 0; i <= last; ++i) scaled[i] = n[i] << shift | (i == 0 ? 0 : shifted_in(n[i - 1]));
  // Everything is scaled alike: 2^shift * 2^(64 * last), and a limb for each of the rest of R^2.
  std::fill(out.begin(), out.end(), 0);
  out[last] = Limb{1} << shift;
  for (size_t i = last; i < 2 * n.size(); ++i) shift_in_limb(scaled, out);
  for (size_t i = 0; i <= last; ++i) {
    const Limb upper = i == last || shift == 0 ? 0 : out[i + 1] << (kLimbBits - static_cast<size_t>(shift));
    out[i] = out[i] >> shift | upper;
  }
}

}  // namespace tq::modular
