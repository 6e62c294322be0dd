#include "crypto/sha256.hpp"

#include <algorithm>
#include <bit>
#include <utility>

#include "crypto/hash_blocks.hpp"
#include "util/endian.hpp"
#include "util/secret.hpp"

namespace tq {
namespace {

constexpr size_t kNumSteps = 64;

// FIPS 180-4 sections 5.3.3 and 4.2.2: the fractions of the square roots of the first 8 primes and of the
// cube roots of the first 64.
constexpr std::array<uint32_t, 8> kInitialValue = {0x6A09E667, 0xBB67AE85, 0x3C6EF372, 0xA54FF53A,
                                                   0x510E527F, 0x9B05688C, 0x1F83D9AB, 0x5BE0CD19};
constexpr std::array<uint32_t, kNumSteps> kConstants = {
    0x428A2F98, 0x71374491, 0xB5C0FBCF, 0xE9B5DBA5, 0x3956C25B, 0x59F111F1, 0x923F82A4, 0xAB1C5ED5,
    0xD807AA98, 0x12835B01, 0x243185BE, 0x550C7DC3, 0x72BE5D74, 0x80DEB1FE, 0x9BDC06A7, 0xC19BF174,
    0xE49B69C1, 0xEFBE4786, 0x0FC19DC6, 0x240CA1CC, 0x2DE92C6F, 0x4A7484AA, 0x5CB0A9DC, 0x76F988DA,
    0x983E5152, 0xA831C66D, 0xB00327C8, 0xBF597FC7, 0xC6E00BF3, 0xD5A79147, 0x06CA6351, 0x14292967,
    0x27B70A85, 0x2E1B2138, 0x4D2C6DFC, 0x53380D13, 0x650A7354, 0x766A0ABB, 0x81C2C92E, 0x92722C85,
    0xA2BFE8A1, 0xA81A664B, 0xC24B8B70, 0xC76C51A3, 0xD192E819, 0xD6990624, 0xF40E3585, 0x106AA070,
    0x19A4C116, 0x1E376C08, 0x2748774C, 0x34B0BCB5, 0x391C0CB3, 0x4ED8AA4A, 0x5B9CCA4F, 0x682E6FF3,
    0x748F82EE, 0x78A5636F, 0x84C87814, 0x8CC70208, 0x90BEFFFA, 0xA4506CEB, 0xBEF9A3F7, 0xC67178F2};

// Section 4.1.2: the sigma functions, in capitals and small letters, and choice and majority.
constexpr uint32_t big_sigma0(uint32_t x) {
  return std::rotr(x, 2) ^ std::rotr(x, 13) ^ std::rotr(x, 22);
}
constexpr uint32_t big_sigma1(uint32_t x) {
  return std::rotr(x, 6) ^ std::rotr(x, 11) ^ std::rotr(x, 25);
}
constexpr uint32_t small_sigma0(uint32_t x) {
  return std::rotr(x, 7) ^ std::rotr(x, 18) ^ (x >> 3);
}
constexpr uint32_t small_sigma1(uint32_t x) {
  return std::rotr(x, 17) ^ std::rotr(x, 19) ^ (x >> 10);
}
constexpr uint32_t choice(uint32_t x, uint32_t y, uint32_t z) {
  return ((y ^ z) & x) ^ z;
}
constexpr uint32_t majority(uint32_t x, uint32_t y, uint32_t z) {
  return (x & y) | ((x | y) & z);
}

using State = std::array<uint32_t, 8>;
using Window = std::array<uint32_t, 16>;  // the last 16 message words, W[t] in place t % 16

// Section 6.2.2. Instead of moving the eight registers along, each step finds them one place further.
template <size_t kStep>
[[gnu::always_inline]] inline void step(State& v, Window& w) {
  constexpr auto at = [](size_t i) { return (i + kNumSteps - kStep) % 8; };
  constexpr auto word_at = [](size_t i) { return (kStep + i) % 16; };
  uint32_t& word = w[word_at(0)];
  if constexpr (kStep >= 16)
    word += small_sigma1(w[word_at(14)]) + w[word_at(9)] + small_sigma0(w[word_at(1)]);
  const uint32_t a = v[at(0)];
  const uint32_t e = v[at(4)];
  const uint32_t t1 = v[at(7)] + big_sigma1(e) + choice(e, v[at(5)], v[at(6)]) + kConstants[kStep] + word;
  v[at(3)] += t1;
  v[at(7)] = t1 + big_sigma0(a) + majority(a, v[at(1)], v[at(2)]);
}

template <size_t... kStep>
[[gnu::always_inline]] inline void all_steps(State& v, Window& w, std::index_sequence<kStep...> /*steps*/) {
  (step<kStep>(v, w), ...);
}

void compress(State& hash, std::span<const uint8_t> blocks) {
  Window w{};
  const WipeOnExit wipe_words(w);
  for (; !blocks.empty(); blocks = blocks.subspan(kHashBlockLen)) {
    for (size_t i = 0; i < w.size(); ++i) w[i] = load_be32(blocks.data() + 4 * i);
    State v = hash;
    all_steps(v, w, std::make_index_sequence<kNumSteps>());
    for (size_t i = 0; i < v.size(); ++i) hash[i] += v[i];
  }
}

}  // namespace

Sha256::~Sha256() {
  wipe(this, sizeof *this);
}

void Sha256::reset() {
  state_ = kInitialValue;
  total_len_ = 0;
}

void Sha256::update(std::span<const uint8_t> data) {
  const auto fill = static_cast<size_t>(total_len_ % kBlockLen);
  absorb(buffer_, fill, data, [this](auto blocks) { compress(state_, blocks); });
  total_len_ += data.size();
}

void Sha256::finish(std::span<uint8_t, kDigestLen> digest) {
  const auto fill = static_cast<size_t>(total_len_ % kBlockLen);
  complete(std::span(buffer_), fill, total_len_ * 8, [this](auto blocks) { compress(state_, blocks); });
  output(digest);
}

void Sha256::finish_hiding_length(std::span<const uint8_t> tail, size_t len,
                                  std::span<uint8_t, kDigestLen> digest) {
  const auto fill = static_cast<size_t>(total_len_ % kBlockLen);
  complete_hiding_length(state_, buffer_, fill, total_len_, tail, len,
                         [this](auto blocks) { compress(state_, blocks); });
  output(digest);
}

void Sha256::output(std::span<uint8_t, kDigestLen> digest) {
  for (size_t i = 0; i < state_.size(); ++i) store_be32(state_[i], &digest[4 * i]);
  wipe(buffer_);
  reset();
}

}  // namespace tq
