#include "crypto/sm3.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdio>
#include <span>
#include <utility>

#include "crypto/hash_blocks.hpp"
#include "util/endian.hpp"
#include "util/secret.hpp"

namespace {

constexpr size_t kDigestLen = 32;
constexpr size_t kNumRounds = 64;
constexpr size_t kFilePieceLen = 1024;

// GB/T 32905 section 4.1.
constexpr std::array<uint32_t, 8> kInitialValue = {0x7380166F, 0x4914B2B9, 0x172442D7, 0xDA8A0600,
                                                   0xA96F30BC, 0x163138AA, 0xE38DEE4D, 0xB0FB0E4E};

// Section 4.2, already rotated by the number of the round.
constexpr std::array<uint32_t, kNumRounds> make_round_constants() {
  std::array<uint32_t, kNumRounds> constants{};
  uint32_t t = 0x79CC4519;
  for (size_t j = 0; j < kNumRounds; ++j, t = std::rotl(t, 1)) {
    if (j == 16) t = std::rotl(0x7A879D8AU, 16);
    constants[j] = t;
  }
  return constants;
}
constexpr auto kRoundConstants = make_round_constants();

// Sections 4.3 and 4.4.
template <size_t kRound>
constexpr uint32_t ff(uint32_t x, uint32_t y, uint32_t z) {
  return kRound < 16 ? x ^ y ^ z : (x & y) | ((x | y) & z);
}
template <size_t kRound>
constexpr uint32_t gg(uint32_t x, uint32_t y, uint32_t z) {
  return kRound < 16 ? x ^ y ^ z : ((y ^ z) & x) ^ z;
}
constexpr uint32_t p0(uint32_t x) {
  return x ^ std::rotl(x ^ std::rotl(x, 8), 9);
}
constexpr uint32_t p1(uint32_t x) {
  return x ^ std::rotl(x ^ std::rotl(x, 8), 15);
}

using Window = std::array<uint32_t, 16>;  // the last 16 message words, W[j] in place j % 16

// Section 5.3.2: W[kRound + 4], which takes the place of W[kRound - 12].
template <size_t kRound>
[[gnu::always_inline]] inline uint32_t message_word_ahead(Window& w) {
  constexpr auto at = [](size_t ahead) { return (kRound + ahead) % 16; };
  uint32_t& word = w[at(4)];
  if constexpr (kRound >= 12) {
    word = p1(word ^ w[at(11)] ^ std::rotl(w[at(1)], 15)) ^ std::rotl(w[at(7)], 7) ^ w[at(14)];
  }
  return word;
}

// Section 5.3.3. Instead of moving the eight registers along, each round finds them one place further.
template <size_t kRound>
[[gnu::always_inline]] inline void step(std::array<uint32_t, 4>& abcd, std::array<uint32_t, 4>& efgh,
                                        Window& w) {
  constexpr auto at = [](size_t i) { return (i + kNumRounds - kRound) % 4; };
  const uint32_t a = abcd[at(0)];
  const uint32_t e = efgh[at(0)];
  uint32_t& b = abcd[at(1)];
  uint32_t& f = efgh[at(1)];
  uint32_t& d = abcd[at(3)];
  uint32_t& h = efgh[at(3)];
  const uint32_t word = w[kRound % 16];
  const uint32_t word_mixed = word ^ message_word_ahead<kRound>(w);
  const uint32_t a12 = std::rotl(a, 12);
  const uint32_t ss1 = std::rotl(a12 + kRoundConstants[kRound] + e, 7);
  d = ff<kRound>(a, b, abcd[at(2)]) + d + word_mixed + (ss1 ^ a12);
  h = p0(gg<kRound>(e, f, efgh[at(2)]) + h + word + ss1);
  b = std::rotl(b, 9);
  f = std::rotl(f, 19);
}

template <size_t... kRound>
[[gnu::always_inline]] inline void all_steps(std::array<uint32_t, 4>& abcd, std::array<uint32_t, 4>& efgh,
                                             Window& w, std::index_sequence<kRound...> /*rounds*/) {
  (step<kRound>(abcd, efgh, w), ...);
}

void compress(uint32_t (&state)[8], std::span<const uint8_t> blocks) {
  Window w{};
  const tq::WipeOnExit wipe_words(w);
  for (; !blocks.empty(); blocks = blocks.subspan(tq::kHashBlockLen)) {
    for (size_t i = 0; i < w.size(); ++i) w[i] = tq::load_be32(blocks.data() + 4 * i);
    std::array<uint32_t, 4> abcd = {state[0], state[1], state[2], state[3]};
    std::array<uint32_t, 4> efgh = {state[4], state[5], state[6], state[7]};
    all_steps(abcd, efgh, w, std::make_index_sequence<kNumRounds>());
    for (size_t i = 0; i < 4; ++i) {
      state[i] ^= abcd[i];
      state[i + 4] ^= efgh[i];
    }
  }
}

std::span<const uint8_t> span_of(const uint8_t* data, int32_t length) {
  return {data, data == nullptr || length < 1 ? 0 : static_cast<size_t>(length)};
}

void update(TQ_SM3_CTX& ctx, std::span<const uint8_t> data) {
  const size_t fill = ctx.total[0] % tq::kHashBlockLen;
  const auto len = static_cast<uint32_t>(data.size());
  ctx.total[0] += len;
  if (ctx.total[0] < len) ++ctx.total[1];
  tq::absorb(std::span(ctx.buffer), fill, data, [&ctx](auto blocks) { compress(ctx.state, blocks); });
}

}  // namespace

extern "C" {

void TQ_sm3_starts(TQ_SM3_CTX* ctx) {
  std::copy(kInitialValue.begin(), kInitialValue.end(), ctx->state);
  ctx->total[0] = 0;
  ctx->total[1] = 0;
}

void TQ_sm3_update(TQ_SM3_CTX* ctx, const uint8_t* data, int32_t length) {
  update(*ctx, span_of(data, length));
}

void TQ_sm3_finish(TQ_SM3_CTX* ctx, uint8_t digest[32]) {
  const uint64_t total = uint64_t{ctx->total[1]} << 32 | ctx->total[0];
  tq::complete(std::span(ctx->buffer), total % tq::kHashBlockLen, total * 8,
               [ctx](auto blocks) { compress(ctx->state, blocks); });
  for (size_t i = 0; i < std::size(ctx->state); ++i) tq::store_be32(ctx->state[i], digest + 4 * i);
}

void TQ_sm3(const uint8_t* data, int32_t length, uint8_t digest[32]) {
  TQ_SM3_CTX ctx;
  const tq::WipeOnExit wipe_ctx(ctx);
  TQ_sm3_starts(&ctx);
  TQ_sm3_update(&ctx, data, length);
  TQ_sm3_finish(&ctx, digest);
}

void TQ_sm3_hmac_starts(TQ_SM3_CTX* ctx, const uint8_t* key, int32_t key_length) {
  tq::Secret<kDigestLen> key_digest;
  auto short_key = span_of(key, key_length);
  if (short_key.size() > tq::kHashBlockLen) {
    TQ_sm3(key, key_length, key_digest.data());
    short_key = key_digest.bytes();
  }
  for (size_t i = 0; i < tq::kHashBlockLen; ++i) {
    const unsigned key_byte = i < short_key.size() ? short_key[i] : 0U;
    ctx->ipad[i] = static_cast<uint8_t>(key_byte ^ 0x36);
    ctx->opad[i] = static_cast<uint8_t>(key_byte ^ 0x5C);
  }
  TQ_sm3_starts(ctx);
  update(*ctx, ctx->ipad);
}

void TQ_sm3_hmac_update(TQ_SM3_CTX* ctx, const uint8_t* data, int32_t length) {
  update(*ctx, span_of(data, length));
}

void TQ_sm3_hmac_finish(TQ_SM3_CTX* ctx, uint8_t mac[32]) {
  tq::Secret<kDigestLen> inner;
  TQ_sm3_finish(ctx, inner.data());
  TQ_sm3_starts(ctx);
  update(*ctx, ctx->opad);
  update(*ctx, inner.bytes());
  TQ_sm3_finish(ctx, mac);
}

void TQ_sm3_hmac(const uint8_t* key, int32_t key_length, const uint8_t* data, int32_t length,
                 uint8_t mac[32]) {
  TQ_SM3_CTX ctx;
  const tq::WipeOnExit wipe_ctx(ctx);
  TQ_sm3_hmac_starts(&ctx, key, key_length);
  TQ_sm3_hmac_update(&ctx, data, length);
  TQ_sm3_hmac_finish(&ctx, mac);
}

void scp_sm3_starts(TQ_SM3_CTX* ctx) {
  TQ_sm3_starts(ctx);
}

void scp_sm3_update(TQ_SM3_CTX* ctx, const uint8_t* data, int32_t length) {
  TQ_sm3_update(ctx, data, length);
}

void scp_sm3_finish(TQ_SM3_CTX* ctx, uint8_t digest[32]) {
  TQ_sm3_finish(ctx, digest);
}

void scp_sm3(const uint8_t* data, int32_t length, uint8_t digest[32]) {
  TQ_sm3(data, length, digest);
}

void scp_sm3_hmac_starts(TQ_SM3_CTX* ctx, const uint8_t* key, int32_t key_length) {
  TQ_sm3_hmac_starts(ctx, key, key_length);
}

void scp_sm3_hmac_update(TQ_SM3_CTX* ctx, const uint8_t* data, int32_t length) {
  TQ_sm3_hmac_update(ctx, data, length);
}

void scp_sm3_hmac_finish(TQ_SM3_CTX* ctx, uint8_t mac[32]) {
  TQ_sm3_hmac_finish(ctx, mac);
}

void scp_sm3_hmac(const uint8_t* key, int32_t key_length, const uint8_t* data, int32_t length,
                  uint8_t mac[32]) {
  TQ_sm3_hmac(key, key_length, data, length, mac);
}

int32_t scp_sm3_file(const char* path, uint8_t digest[32]) {
  FILE* file = path == nullptr ? nullptr : std::fopen(path, "rbe");
  if (file == nullptr) return 1;
  TQ_SM3_CTX ctx;
  const tq::WipeOnExit wipe_ctx(ctx);
  tq::Secret<kFilePieceLen> piece;
  TQ_sm3_starts(&ctx);
  size_t len = 0;
  while ((len = std::fread(piece.data(), 1, kFilePieceLen, file)) > 0) update(ctx, piece.bytes().first(len));
  const bool failed = std::ferror(file) != 0;
  static_cast<void>(std::fclose(file));
  if (failed) return 1;
  TQ_sm3_finish(&ctx, digest);
  return 0;
}

}  // extern "C"
