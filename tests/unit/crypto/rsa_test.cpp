#include "crypto/rsa.hpp"

#include <gtest/gtest.h>
#include <openssl/bn.h>

#include <memory>

#include "support/bytes.hpp"

namespace {

using namespace test;
using BigNumber = std::unique_ptr<BIGNUM, void (*)(BIGNUM*)>;

const std::unique_ptr<BN_CTX, void (*)(BN_CTX*)> kContext(BN_CTX_new(), BN_CTX_free);

BigNumber big_number(const Bytes& bytes) {
  return {BN_bin2bn(bytes.data(), static_cast<int>(bytes.size()), nullptr), BN_free};
}

Bytes bytes_of(const BigNumber& number, size_t len) {
  Bytes bytes(len);
  EXPECT_GE(BN_bn2binpad(number.get(), bytes.data(), static_cast<int>(len)), 0);
  return bytes;
}

// In place; beside plain multiplication and division, far from Montgomery's method.
void expect_power(const Bytes& modulus, const Bytes& exponent, const Bytes& message) {
  const BigNumber power(BN_new(), BN_free);
  ASSERT_EQ(BN_mod_exp_simple(power.get(), big_number(message).get(), big_number(exponent).get(),
                              big_number(modulus).get(), kContext.get()),
            1);
  Bytes out = message;
  ASSERT_TRUE(tq::rsa_public({modulus, exponent}, out, out));
  ASSERT_EQ(hex(out), hex(bytes_of(power, modulus.size()))) << hex(modulus) << " ^ " << hex(exponent);
}

// Anywhere below the modulus, so that the sums of Montgomery's method come out on both sides of it.
Bytes random_below(const Bytes& modulus, std::mt19937& generator) {
  const BigNumber message = big_number(random_bytes(generator, modulus.size() + 8));
  EXPECT_EQ(BN_nnmod(message.get(), message.get(), big_number(modulus).get(), kContext.get()), 1);
  return bytes_of(message, modulus.size());
}

// Of exactly so many bits; the bits below the highest come from `fill`, and the lowest is set.
template <typename Fill>
Bytes odd_number(size_t num_bits, Fill fill) {
  Bytes bytes(1 + (num_bits - 1) / 8);
  for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(fill());
  const auto top = static_cast<uint8_t>(1U << ((num_bits - 1) % 8));
  bytes.front() = static_cast<uint8_t>((bytes.front() & (top - 1)) | top);
  bytes.back() |= 1;
  return bytes;
}

// Random moduli of every kind of length, and those whose limbs are all zeros or ones, where long division and
// the last subtraction have their rare cases.
TEST(Rsa, AgreesWithOpenSsl) {
  std::mt19937 generator(8017);
  const auto random = [&generator] { return generator(); };
  const auto sparse = [&generator] { return generator() % 8 < 4 ? 0xFFU : 0U; };
  for (const size_t num_bits :
       {1024, 1025, 1031, 1032, 1087, 1088, 1089, 1536, 2047, 2048, 2049, 3072, 4096, 8191, 8192}) {
    for (const Bytes& modulus : {odd_number(num_bits, random), odd_number(num_bits, [] { return 0; }),
                                 odd_number(num_bits, [] { return 0xFF; }), odd_number(num_bits, sparse)}) {
      for (const char* exponent : {"03", "11", "010001", "0100000001", "ffffffffffffffffffffffffffffffffff"})
        expect_power(modulus, from_hex(exponent), random_below(modulus, generator));
      const Bytes zeros(modulus.size() - 1);
      Bytes largest = modulus;
      largest.back() = static_cast<uint8_t>(largest.back() - 1);
      for (const Bytes& edge : {zeros + Bytes{0}, zeros + Bytes{1}, zeros + Bytes{2}, largest})
        expect_power(modulus, {1, 0, 1}, edge);
    }
  }
  for (int i = 0; i < 500; ++i) {
    const size_t num_bits = 1024 + generator() % 80;
    const Bytes modulus = i % 2 == 0 ? odd_number(num_bits, sparse) : odd_number(num_bits, random);
    expect_power(modulus, {1, 0, 1}, random_below(modulus, generator));
  }
  for (const size_t num_bits : {1024, 2048}) {
    const Bytes modulus = odd_number(num_bits, random);
    expect_power(modulus, odd_number(num_bits - 1, random), random_below(modulus, generator));
  }
}

TEST(Rsa, WhatIsOutOfRangeIsRefused) {
  const auto ones = [] { return 0xFF; };
  const Bytes good = odd_number(1024, ones);
  const Bytes with_room = odd_number(1031, ones);
  Bytes even = good;
  even.back() = 0xFE;
  Bytes large_exponent = good;
  large_exponent.back() = 0xFD;
  Bytes long_exponent = Bytes{1} + Bytes(127, 0xFF) + Bytes{1};  // as text smaller than the modulus
  Bytes above = with_room;
  above.front() = 0x80;
  const struct {
    const char* name;
    Bytes modulus;
    Bytes exponent;
    Bytes message;
    size_t out_len;
    bool usable;
    bool done;
  } cases[] = {
      {"1024 bits", good, {3}, Bytes(128), 128, true, true},
      {"8192 bits", odd_number(8192, ones), {3}, Bytes(1024), 1024, true, true},
      {"largest exponent", good, large_exponent, Bytes(128), 128, true, true},
      {"1023 bits", odd_number(1023, ones), {3}, Bytes(128), 128, false, false},
      {"8193 bits", odd_number(8193, ones), {3}, Bytes(1025), 1025, false, false},
      {"8200 bits", odd_number(8200, ones), {3}, Bytes(1025), 1025, false, false},
      {"even modulus", even, {3}, Bytes(128), 128, false, false},
      {"leading zero of the modulus", Bytes{0} + good, {3}, Bytes(129), 129, false, false},
      {"no modulus", {}, {3}, {}, 0, false, false},
      {"no exponent", good, {}, Bytes(128), 128, false, false},
      {"exponent 0", good, {0}, Bytes(128), 128, false, false},
      {"exponent 1", good, {1}, Bytes(128), 128, false, false},
      {"exponent 2", good, {2}, Bytes(128), 128, false, false},
      {"even exponent", good, {1, 0, 2}, Bytes(128), 128, false, false},
      {"leading zero of the exponent", good, {0, 3}, Bytes(128), 128, false, false},
      {"exponent equal to the modulus", good, good, Bytes(128), 128, false, false},
      {"exponent longer than the modulus", good, long_exponent, Bytes(128), 128, false, false},
      {"the modulus itself", with_room, {3}, with_room, 129, true, false},
      {"above the modulus", with_room, {3}, above, 129, true, false},
      {"all ones", with_room, {3}, Bytes(129, 0xFF), 129, true, false},
      {"a short message", with_room, {3}, Bytes(128), 129, true, false},
      {"a long message", with_room, {3}, Bytes(130), 129, true, false},
      {"no message", with_room, {3}, {}, 129, true, false},
      {"a short output", with_room, {3}, Bytes(129), 128, true, false},
      {"a long output", with_room, {3}, Bytes(129), 130, true, false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(tq::rsa_key_usable({c.modulus, c.exponent}), c.usable) << c.name;
    Bytes out(c.out_len, 0xEE);
    EXPECT_EQ(tq::rsa_public({c.modulus, c.exponent}, c.message, out), c.done) << c.name;
    EXPECT_EQ(out, Bytes(c.out_len, c.done ? 0 : 0xEE)) << c.name;
  }
}

}  // namespace
