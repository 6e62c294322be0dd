#include "crypto/md5.hpp"

#include <algorithm>
#include <bit>
#include <utility>

#include "crypto/hash_blocks.hpp"
#include "util/endian.hpp"
#include "util/secret.hpp"

namespace tq {
namespace {

constexpr size_t kNumSteps = 64;

// RFC 1321 section 3.3; section 3.4: the constants are the whole parts of 2^32 |sin(i)|, i = 1 to 64, and
// each of the four rounds has four shifts.
constexpr std::array<uint32_t, 4> kInitialValue = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476};
constexpr std::array<uint32_t, kNumSteps> kConstants = {
    0xD76AA478, 0xE8C7B756, 0x242070DB, 0xC1BDCEEE, 0xF57C0FAF, 0x4787C62A, 0xA8304613, 0xFD469501,
    0x698098D8, 0x8B44F7AF, 0xFFFF5BB1, 0x895CD7BE, 0x6B901122, 0xFD987193, 0xA679438E, 0x49B40821,
    0xF61E2562, 0xC040B340, 0x265E5A51, 0xE9B6C7AA, 0xD62F105D, 0x02441453, 0xD8A1E681, 0xE7D3FBC8,
    0x21E1CDE6, 0xC33707D6, 0xF4D50D87, 0x455A14ED, 0xA9E3E905, 0xFCEFA3F8, 0x676F02D9, 0x8D2A4C8A,
    0xFFFA3942, 0x8771F681, 0x6D9D6122, 0xFDE5380C, 0xA4BEEA44, 0x4BDECFA9, 0xF6BB4B60, 0xBEBFBC70,
    0x289B7EC6, 0xEAA127FA, 0xD4EF3085, 0x04881D05, 0xD9D4D039, 0xE6DB99E5, 0x1FA27CF8, 0xC4AC5665,
    0xF4292244, 0x432AFF97, 0xAB9423A7, 0xFC93A039, 0x655B59C3, 0x8F0CCC92, 0xFFEFF47D, 0x85845DD1,
    0x6FA87E4F, 0xFE2CE6E0, 0xA3014314, 0x4E0811A1, 0xF7537E82, 0xBD3AF235, 0x2AD7D2BB, 0xEB86D391};
constexpr std::array<std::array<int, 4>, 4> kShifts = {
    {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}}};

// Section 3.4: F, G, H and I, one for each round.
template <size_t kRound>
constexpr uint32_t mix(uint32_t x, uint32_t y, uint32_t z) {
  if constexpr (kRound == 0) return ((y ^ z) & x) ^ z;
  if constexpr (kRound == 1) return (x & z) + (y & ~z);  // never both: the sum is the "or"
  if constexpr (kRound == 2) return x ^ y ^ z;
  return y ^ (x | ~z);
}

// The message words of a round: every word once, beginning at `first` and going on by `stride`.
struct Order {
  size_t first;
  size_t stride;
};
constexpr std::array<Order, 4> kOrders = {{{0, 1}, {1, 5}, {5, 3}, {0, 7}}};

using State = std::array<uint32_t, 4>;
using Block = std::array<uint32_t, 16>;

// Instead of moving the four registers along, each step finds them one place further.
template <size_t kStep>
[[gnu::always_inline]] inline void step(State& v, const Block& words) {
  constexpr size_t kRound = kStep / 16;
  constexpr auto at = [](size_t i) { return (i + kNumSteps - kStep) % 4; };
  constexpr size_t kWord = (kOrders[kRound].first + kStep % 16 * kOrders[kRound].stride) % 16;
  const uint32_t b = v[at(1)];
  uint32_t& a = v[at(0)];
  a += words[kWord] + kConstants[kStep] + mix<kRound>(b, v[at(2)], v[at(3)]);
  a = std::rotl(a, kShifts[kRound][kStep % 4]) + b;
}

template <size_t... kStep>
[[gnu::always_inline]] inline void all_steps(State& v, const Block& words,
                                             std::index_sequence<kStep...> /*steps*/) {
  (step<kStep>(v, words), ...);
}

void compress(State& hash, std::span<const uint8_t> blocks) {
  Block words{};
  const WipeOnExit wipe_words(words);
  for (; !blocks.empty(); blocks = blocks.subspan(kHashBlockLen)) {
    for (size_t i = 0; i < words.size(); ++i) words[i] = load_le32(blocks.data() + 4 * i);
    State v = hash;
    all_steps(v, words, std::make_index_sequence<kNumSteps>());
    for (size_t i = 0; i < v.size(); ++i) hash[i] += v[i];
  }
}

}  // namespace

Md5::~Md5() {
  wipe(this, sizeof *this);
}

void Md5::reset() {
  state_ = kInitialValue;
  total_len_ = 0;
}

void Md5::update(std::span<const uint8_t> data) {
  const auto fill = static_cast<size_t>(total_len_ % kBlockLen);
  absorb(buffer_, fill, data, [this](auto blocks) { compress(state_, blocks); });
  total_len_ += data.size();
}

void Md5::finish(std::span<uint8_t, kDigestLen> digest) {
  const auto fill = static_cast<size_t>(total_len_ % kBlockLen);
  complete<std::endian::little>(std::span(buffer_), fill, total_len_ * 8,
                                [this](auto blocks) { compress(state_, blocks); });
  output(digest);
}

void Md5::finish_hiding_length(std::span<const uint8_t> tail, size_t len,
                               std::span<uint8_t, kDigestLen> digest) {
  const auto fill = static_cast<size_t>(total_len_ % kBlockLen);
  complete_hiding_length<std::endian::little>(state_, buffer_, fill, total_len_, tail, len,
                                              [this](auto blocks) { compress(state_, blocks); });
  output(digest);
}

void Md5::output(std::span<uint8_t, kDigestLen> digest) {
  for (size_t i = 0; i < state_.size(); ++i) store_le32(state_[i], &digest[4 * i]);
  wipe(buffer_);
  reset();
}

}  // namespace tq
