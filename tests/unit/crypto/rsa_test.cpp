#include "crypto/rsa.hpp"

#include <gtest/gtest.h>
#include <openssl/bn.h>

#include <memory>
#include <random>
#include <string>

#include "support/bytes.hpp"

namespace {

using test::Bytes;
using BigNumber = std::unique_ptr<BIGNUM, void (*)(BIGNUM*)>;

BigNumber big_number(const Bytes& bytes) {
  return {BN_bin2bn(bytes.data(), static_cast<int>(bytes.size()), nullptr), BN_free};
}

// By plain multiplication and division, far from Montgomery's method.
Bytes openssl_power(const Bytes& message, const Bytes& exponent, const Bytes& modulus) {
  const std::unique_ptr<BN_CTX, void (*)(BN_CTX*)> ctx(BN_CTX_new(), BN_CTX_free);
  const BigNumber result(BN_new(), BN_free);
  EXPECT_EQ(BN_mod_exp_simple(result.get(), big_number(message).get(), big_number(exponent).get(),
                              big_number(modulus).get(), ctx.get()),
            1);
  Bytes out(modulus.size());
  EXPECT_GE(BN_bn2binpad(result.get(), out.data(), static_cast<int>(out.size())), 0);
  return out;
}

Bytes minus_one(Bytes odd) {
  odd.back() = static_cast<uint8_t>(odd.back() - 1);
  return odd;
}

// Anywhere below the modulus, so that the sums of Montgomery's method come out on both sides of it.
Bytes random_below(const Bytes& modulus, std::mt19937& generator) {
  const std::unique_ptr<BN_CTX, void (*)(BN_CTX*)> ctx(BN_CTX_new(), BN_CTX_free);
  const BigNumber message = big_number(test::random_bytes(generator, modulus.size() + 8));
  EXPECT_EQ(BN_nnmod(message.get(), message.get(), big_number(modulus).get(), ctx.get()), 1);
  Bytes bytes(modulus.size());
  EXPECT_GE(BN_bn2binpad(message.get(), bytes.data(), static_cast<int>(bytes.size())), 0);
  return bytes;
}

Bytes small_number(const Bytes& modulus, uint8_t value) {
  Bytes bytes(modulus.size());
  bytes.back() = value;
  return bytes;
}

// Of exactly so many bits; the bits below the highest come from `fill`, and the lowest is set.
template <typename Fill>
Bytes odd_number(size_t num_bits, Fill fill) {
  Bytes bytes(1 + (num_bits - 1) / 8);
  for (uint8_t& byte : bytes) byte = fill();
  const auto top = static_cast<uint8_t>(1U << ((num_bits - 1) % 8));
  bytes.front() = static_cast<uint8_t>((bytes.front() & (top - 1)) | top);
  bytes.back() |= 1;
  return bytes;
}

void expect_power(const Bytes& modulus, const Bytes& exponent, const Bytes& message) {
  Bytes out(modulus.size(), 0xEE);
  ASSERT_TRUE(tq::rsa_public({modulus, exponent}, message, out));
  ASSERT_EQ(test::hex(out), test::hex(openssl_power(message, exponent, modulus)))
      << test::hex(modulus) << " ^ " << test::hex(exponent);
}

const char* const kExponents[] = {"03", "11", "010001", "0100000001", "ffffffffffffffffffffffffffffffffff"};

// Random moduli of every kind of length, and those whose limbs are all zeros or ones, where long division and
// the last subtraction have their rare cases.
TEST(Rsa, AgreesWithOpenSsl) {
  std::mt19937 generator(8017);
  const auto random = [&generator] { return static_cast<uint8_t>(generator()); };
  const auto zeros = [] { return uint8_t{0}; };
  const auto ones = [] { return uint8_t{0xFF}; };
  const auto sparse = [&generator] { return static_cast<uint8_t>(generator() % 8 < 4 ? 0xFF : 0); };
  for (const size_t num_bits :
       {1024, 1025, 1031, 1032, 1087, 1088, 1089, 1536, 2047, 2048, 2049, 3072, 4096, 8191, 8192}) {
    for (const Bytes& modulus : {odd_number(num_bits, random), odd_number(num_bits, zeros),
                                 odd_number(num_bits, ones), odd_number(num_bits, sparse)}) {
      for (const char* exponent : kExponents) {
        expect_power(modulus, test::from_hex(exponent), random_below(modulus, generator));
      }
      for (const Bytes& edge : {small_number(modulus, 0), small_number(modulus, 1), small_number(modulus, 2),
                                minus_one(modulus)}) {
        expect_power(modulus, test::from_hex("010001"), edge);
      }
    }
  }
}

TEST(Rsa, ManyShortModuli) {
  std::mt19937 generator(1024);
  for (int i = 0; i < 500; ++i) {
    const bool sparse = i % 2 == 0;
    const Bytes modulus = odd_number(1024 + generator() % 80, [&] {
      return static_cast<uint8_t>(sparse ? (generator() % 8 < 4 ? 0xFF : 0) : generator());
    });
    expect_power(modulus, test::from_hex("010001"), random_below(modulus, generator));
  }
}

TEST(Rsa, LargestExponents) {
  std::mt19937 generator(2048);
  const auto random = [&generator] { return static_cast<uint8_t>(generator()); };
  for (const size_t num_bits : {1024, 2048}) {
    const Bytes modulus = odd_number(num_bits, random);
    expect_power(modulus, odd_number(num_bits - 1, random), random_below(modulus, generator));
  }
}

TEST(Rsa, InPlace) {
  std::mt19937 generator(4);
  const Bytes modulus = odd_number(2048, [&generator] { return static_cast<uint8_t>(generator()); });
  Bytes message = random_below(modulus, generator);
  const Bytes exponent = test::from_hex("03");
  const Bytes expected = openssl_power(message, exponent, modulus);
  ASSERT_TRUE(tq::rsa_public({modulus, exponent}, message, message));
  EXPECT_EQ(message, expected);
}

TEST(Rsa, RefusedKeys) {
  const auto ones = [] { return uint8_t{0xFF}; };
  const Bytes good = odd_number(1024, ones);
  const Bytes three = {3};
  Bytes largest_exponent = good;  // which ends with FF
  largest_exponent.back() = 0xFD;
  Bytes leading_zero = good;
  leading_zero.insert(leading_zero.begin(), 0);
  Bytes one_longer = good;
  one_longer.push_back(1);
  one_longer.front() = 1;  // which a comparison as text would take for smaller
  struct Case {
    const char* name;
    Bytes modulus;
    Bytes exponent;
    bool usable;
  };
  const Case cases[] = {
      {"1024 bits", good, three, true},
      {"8192 bits", odd_number(8192, ones), three, true},
      {"largest exponent", good, largest_exponent, true},
      {"1023 bits", odd_number(1023, ones), three, false},
      {"8193 bits", odd_number(8193, ones), three, false},
      {"8200 bits", odd_number(8200, ones), three, false},
      {"even modulus", minus_one(good), three, false},
      {"leading zero of the modulus", leading_zero, three, false},
      {"no modulus", {}, three, false},
      {"no exponent", good, {}, false},
      {"exponent 0", good, {0}, false},
      {"exponent 1", good, {1}, false},
      {"exponent 2", good, {2}, false},
      {"even exponent", good, {1, 0, 2}, false},
      {"leading zero of the exponent", good, {0, 3}, false},
      {"exponent equal to the modulus", good, good, false},
      {"exponent longer than the modulus", good, one_longer, false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(tq::rsa_key_usable({c.modulus, c.exponent}), c.usable) << c.name;
    Bytes out(c.modulus.size(), 0xEE);
    const Bytes message(c.modulus.size());
    EXPECT_EQ(tq::rsa_public({c.modulus, c.exponent}, message, out), c.usable) << c.name;
    EXPECT_EQ(out, Bytes(c.modulus.size(), c.usable ? 0 : 0xEE)) << c.name;
  }
}

TEST(Rsa, RefusedMessages) {
  std::mt19937 generator(5);
  const Bytes modulus = odd_number(1031, [&generator] { return static_cast<uint8_t>(generator()); });
  const Bytes exponent = {1, 0, 1};
  Bytes above = modulus;
  above.front() = static_cast<uint8_t>(above.front() + 1);  // of 1031 bits, so it has room
  struct Case {
    const char* name;
    Bytes message;
    size_t out_len;
  };
  const Case cases[] = {{"the modulus itself", modulus, modulus.size()},
                        {"above the modulus", above, modulus.size()},
                        {"all ones", Bytes(modulus.size(), 0xFF), modulus.size()},
                        {"too short", Bytes(modulus.size() - 1), modulus.size()},
                        {"too long", Bytes(modulus.size() + 1), modulus.size()},
                        {"empty", {}, modulus.size()},
                        {"short output", small_number(modulus, 2), modulus.size() - 1},
                        {"long output", small_number(modulus, 2), modulus.size() + 1}};
  for (const Case& c : cases) {
    Bytes out(c.out_len, 0xEE);
    EXPECT_FALSE(tq::rsa_public({modulus, exponent}, c.message, out)) << c.name;
    EXPECT_EQ(out, Bytes(c.out_len, 0xEE)) << c.name;
  }
}

}  // namespace
