#include "crypto/sha1.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <iterator>
#include <limits>
#include <span>
#include <utility>

#include "crypto/hash_blocks.hpp"
#include "util/endian.hpp"
#include "util/secret.hpp"

namespace {

constexpr int32_t kDigestLen = 20;
constexpr size_t kNumSteps = 80;

// FIPS 180-4 sections 5.3.1 and 4.2.1.
constexpr std::array<uint32_t, 5> kInitialValue = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476,
                                                   0xC3D2E1F0};
constexpr std::array<uint32_t, 4> kConstants = {0x5A827999, 0x6ED9EBA1, 0x8F1BBCDC, 0xCA62C1D6};

// Section 4.1.1: choice, parity, majority, parity.
template <size_t kStep>
constexpr uint32_t f(uint32_t x, uint32_t y, uint32_t z) {
  if constexpr (kStep < 20) return ((y ^ z) & x) ^ z;
  if constexpr (kStep >= 40 && kStep < 60) return (x & y) | ((x | y) & z);
  return x ^ y ^ z;
}

using Window = std::array<uint32_t, 16>;  // the last 16 message words, W[t] in place t % 16

// Section 6.1.2. Instead of moving the five registers along, each step finds them one place further.
template <size_t kStep>
[[gnu::always_inline]] inline void step(std::array<uint32_t, 5>& v, Window& w) {
  constexpr auto at = [](size_t i) { return (i + kNumSteps - kStep) % 5; };
  constexpr auto word_at = [](size_t i) { return (kStep + i) % 16; };
  uint32_t& word = w[word_at(0)];
  if constexpr (kStep >= 16) word = std::rotl(w[word_at(13)] ^ w[word_at(8)] ^ w[word_at(2)] ^ word, 1);
  const uint32_t a = v[at(0)];
  uint32_t& b = v[at(1)];
  uint32_t& e = v[at(4)];
  e += kConstants[kStep / 20] + word + f<kStep>(b, v[at(2)], v[at(3)]) + std::rotl(a, 5);
  b = std::rotl(b, 30);
}

template <size_t... kStep>
[[gnu::always_inline]] inline void all_steps(std::array<uint32_t, 5>& v, Window& w,
                                             std::index_sequence<kStep...> /*steps*/) {
  (step<kStep>(v, w), ...);
}

void compress(uint32_t (&hash)[5], std::span<const uint8_t> blocks) {
  Window w{};
  const tq::WipeOnExit wipe_words(w);
  for (; !blocks.empty(); blocks = blocks.subspan(tq::kHashBlockLen)) {
    for (size_t i = 0; i < w.size(); ++i) w[i] = tq::load_be32(blocks.data() + 4 * i);
    std::array<uint32_t, 5> v{};
    std::copy(std::begin(hash), std::end(hash), v.begin());
    all_steps(v, w, std::make_index_sequence<kNumSteps>());
    for (size_t i = 0; i < v.size(); ++i) hash[i] += v[i];
  }
}

uint64_t bit_len(const TQSHA1Context& ctx) {
  return uint64_t{ctx.Length_High} << 32 | ctx.Length_Low;
}

void set_bit_len(TQSHA1Context& ctx, uint64_t bits) {
  ctx.Length_High = static_cast<uint32_t>(bits >> 32);
  ctx.Length_Low = static_cast<uint32_t>(bits);
}

}  // namespace

extern "C" {

int32_t TQSHA1Reset(TQSHA1Context* ctx) {
  if (ctx == nullptr) return shaNull;
  std::copy(kInitialValue.begin(), kInitialValue.end(), ctx->Intermediate_Hash);
  set_bit_len(*ctx, 0);
  ctx->Message_Block_Index = 0;
  ctx->Computed = 0;
  ctx->Corrupted = shaSuccess;
  return shaSuccess;
}

int32_t TQSHA1Input(TQSHA1Context* ctx, const uint8_t* data, size_t length) {
  if (length == 0) return shaSuccess;
  if (ctx == nullptr || data == nullptr) return shaNull;
  if (ctx->Computed != 0) ctx->Corrupted = shaStateError;
  if (ctx->Corrupted != shaSuccess) return ctx->Corrupted;
  const uint64_t room_bits = std::numeric_limits<uint64_t>::max() - bit_len(*ctx);
  if (length > room_bits / 8) {
    ctx->Corrupted = shaInputTooLong;
    return ctx->Corrupted;
  }
  set_bit_len(*ctx, bit_len(*ctx) + uint64_t{length} * 8);
  const size_t fill =
      tq::absorb(std::span(ctx->Message_Block), static_cast<size_t>(ctx->Message_Block_Index), {data, length},
                 [ctx](auto blocks) { compress(ctx->Intermediate_Hash, blocks); });
  ctx->Message_Block_Index = static_cast<int16_t>(fill);
  return shaSuccess;
}

int32_t TQSHA1Result(TQSHA1Context* ctx, uint8_t digest[20]) {
  if (ctx == nullptr || digest == nullptr) return shaNull;
  if (ctx->Corrupted != shaSuccess) return ctx->Corrupted;
  if (ctx->Computed == 0) {
    SHA1PadMessage(ctx);
    tq::wipe(ctx->Message_Block);
    set_bit_len(*ctx, 0);
    ctx->Computed = 1;
  }
  for (size_t i = 0; i < std::size(ctx->Intermediate_Hash); ++i) {
    tq::store_be32(ctx->Intermediate_Hash[i], digest + 4 * i);
  }
  return shaSuccess;
}

void SHA1PadMessage(TQSHA1Context* ctx) {
  tq::complete(std::span(ctx->Message_Block), static_cast<size_t>(ctx->Message_Block_Index), bit_len(*ctx),
               [ctx](auto blocks) { compress(ctx->Intermediate_Hash, blocks); });
  ctx->Message_Block_Index = 0;
}

void SHA1ProcessMessageBlock(TQSHA1Context* ctx) {
  compress(ctx->Intermediate_Hash, ctx->Message_Block);
  ctx->Message_Block_Index = 0;
}

int32_t TQSHA1Parse(const uint8_t* data, size_t length, uint8_t* digest, int32_t capacity) {
  if (capacity < kDigestLen || digest == nullptr) return -1;
  TQSHA1Context ctx;
  const tq::WipeOnExit wipe_ctx(ctx);
  if (TQSHA1Reset(&ctx) != shaSuccess || TQSHA1Input(&ctx, data, length) != shaSuccess ||
      TQSHA1Result(&ctx, digest) != shaSuccess) {
    return -1;
  }
  return kDigestLen;
}

}  // extern "C"

namespace tq {

Sha1::Sha1() {
  TQSHA1Reset(&ctx_);
}

Sha1::~Sha1() {
  wipe(this, sizeof *this);
}

void Sha1::update(std::span<const uint8_t> data) {
  TQSHA1Input(&ctx_, data.data(), data.size());
}

void Sha1::finish(std::span<uint8_t, kDigestLen> digest) {
  TQSHA1Result(&ctx_, digest.data());
  TQSHA1Reset(&ctx_);
}

void Sha1::finish_hiding_length(std::span<const uint8_t> tail, size_t len,
                                std::span<uint8_t, kDigestLen> digest) {
  complete_hiding_length(ctx_.Intermediate_Hash, ctx_.Message_Block,
                         static_cast<size_t>(ctx_.Message_Block_Index), bit_len(ctx_) / 8, tail, len,
                         [this](auto blocks) { compress(ctx_.Intermediate_Hash, blocks); });
  ctx_.Computed = 1;  // what Result would compute has just been done
  finish(digest);
  wipe(ctx_.Message_Block);
}

}  // namespace tq
