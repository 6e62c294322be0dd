#include "crypto/rsa.hpp"

#include <algorithm>
#include <bit>

#include "crypto/constant_time.hpp"
#include "util/secret.hpp"

namespace tq {
namespace {

using Limb = uint64_t;
using Wide = unsigned __int128;
using Number = std::span<Limb>;             // little-endian limbs
using ConstNumber = std::span<const Limb>;  // all of one modulus have the same count

constexpr size_t kLimbBits = 64;
constexpr size_t kLimbLen = sizeof(Limb);
constexpr Limb kAllOnes = ~Limb{0};

constexpr Limb low_limb(Wide x) {
  return static_cast<Limb>(x);
}
constexpr Limb high_limb(Wide x) {
  return static_cast<Limb>(x >> kLimbBits);
}

// --- numbers of a fixed count of limbs ---------------------------------------------------------------------

void load_number(std::span<const uint8_t> big_endian, Number out) {
  std::fill(out.begin(), out.end(), 0);
  for (size_t i = 0; i < big_endian.size(); ++i) {
    out[i / kLimbLen] |= Limb{big_endian[big_endian.size() - 1 - i]} << (8 * (i % kLimbLen));
  }
}

// Leaves the bytes as they are where `mask` is 0.
void store_number(ConstNumber x, std::span<uint8_t> big_endian, Limb mask) {
  for (size_t i = 0; i < big_endian.size(); ++i) {
    uint8_t& byte = big_endian[big_endian.size() - 1 - i];
    const Limb limb = (x[i / kLimbLen] >> (8 * (i % kLimbLen)) & mask) | (byte & ~mask);
    byte = static_cast<uint8_t>(limb);
  }
}

// x += y. Returns the carry.
Limb add(Number x, ConstNumber y) {
  Limb carry = 0;
  for (size_t i = 0; i < x.size(); ++i) {
    const Wide sum = Wide{x[i]} + y[i] + carry;
    x[i] = low_limb(sum);
    carry = high_limb(sum);
  }
  return carry;
}

// x -= y where `mask` is all ones, x where it is 0. Returns the borrow (of what was subtracted).
Limb subtract(Number x, ConstNumber y, Limb mask) {
  Limb borrow = 0;
  for (size_t i = 0; i < x.size(); ++i) {
    const Wide difference = Wide{x[i]} - (y[i] & mask) - borrow;
    x[i] = low_limb(difference);
    borrow = high_limb(difference) & 1;
  }
  return borrow;
}

// 1 when x < y, else 0, in constant time.
Limb less(ConstNumber x, ConstNumber y) {
  Limb borrow = 0;
  for (size_t i = 0; i < x.size(); ++i) borrow = high_limb(Wide{x[i]} - y[i] - borrow) & 1;
  return borrow;
}

// --- Montgomery arithmetic ---------------------------------------------------------------------------------

// An odd number n of at least two limbs, with R = 2^(64 * limbs).
struct Modulus {
  ConstNumber n;
  Limb minus_inverse;  // -1/n modulo 2^64
};

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

// R^2 mod n. Only of public numbers: its time depends on them. `scaled` is room for a number.
void montgomery_square_of_radix(ConstNumber n, Number scaled, Number out) {
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

// --- keys --------------------------------------------------------------------------------------------------

bool is_odd_number(std::span<const uint8_t> big_endian) {
  return !big_endian.empty() && big_endian.front() != 0 && (big_endian.back() & 1) != 0;
}

size_t num_bits(std::span<const uint8_t> big_endian) {
  return 8 * big_endian.size() - static_cast<size_t>(std::countl_zero(big_endian.front()));
}

bool bit(std::span<const uint8_t> big_endian, size_t index) {
  return (big_endian[big_endian.size() - 1 - index / 8] >> (index % 8) & 1) != 0;
}

}  // namespace

bool rsa_key_usable(const RsaPublicKey& key) {
  const auto n = key.modulus;
  const auto e = key.exponent;
  if (!is_odd_number(n) || !is_odd_number(e) || n.size() > kMaxRsaBits / 8) return false;
  if (num_bits(n) < kMinRsaBits || num_bits(e) < 2 || e.size() > n.size()) return false;
  return e.size() < n.size() || std::lexicographical_compare(e.begin(), e.end(), n.begin(), n.end());
}

bool rsa_public(const RsaPublicKey& key, std::span<const uint8_t> message, std::span<uint8_t> out) {
  if (!rsa_key_usable(key)) return false;
  if (message.size() != key.modulus.size() || out.size() != key.modulus.size()) return false;

  const size_t size = (key.modulus.size() + kLimbLen - 1) / kLimbLen;
  ScratchBuffer memory(5 * size * kLimbLen);
  if (!memory) return false;
  // The block is aligned for every type.
  auto* limbs = static_cast<Limb*>(static_cast<void*>(memory.data()));
  const auto place = [limbs, size](size_t i) { return Number(limbs + i * size, size); };
  const Number n = place(0);
  const Number m = place(1);
  const Number base = place(2);
  Number power = place(3);
  Number next = place(4);

  load_number(key.modulus, n);
  load_number(message, m);
  const Limb in_range = opaque(less(m, n));

  const Modulus modulus = {n, minus_inverse(n[0])};
  montgomery_square_of_radix(n, next, power);
  montgomery(modulus, Multiply{m, power}, base);
  std::copy(base.begin(), base.end(), power.begin());
  for (size_t i = num_bits(key.exponent) - 1; i-- > 0;) {
    montgomery(modulus, Square{power}, next);
    std::swap(power, next);
    if (!bit(key.exponent, i)) continue;
    // The lowest bit is set: the last factor is the message itself, without the R that is to go.
    montgomery(modulus, Multiply{power, i == 0 ? m : base}, next);
    std::swap(power, next);
  }
  store_number(power, out, opaque(0 - in_range));
  return in_range != 0;
}

}  // namespace tq
