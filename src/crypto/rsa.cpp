#include "crypto/rsa.hpp"

#include <algorithm>
#include <bit>

#include "crypto/constant_time.hpp"
#include "crypto/modular.hpp"
#include "util/secret.hpp"

namespace tq {

using namespace modular;

namespace {

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

  const Modulus modulus(n);
  square_of_radix(n, next, power);
  multiply(modulus, m, power, base);
  std::copy(base.begin(), base.end(), power.begin());
  for (size_t i = num_bits(key.exponent) - 1; i-- > 0;) {
    square(modulus, power, next);
    std::swap(power, next);
    if (!bit(key.exponent, i)) continue;
    // The lowest bit is set: the last factor is the message itself, without the R that is to go.
    multiply(modulus, power, i == 0 ? m : base, next);
    std::swap(power, next);
  }
  store_number(power, out, opaque(0 - in_range));
  return in_range != 0;
}

}  // namespace tq
