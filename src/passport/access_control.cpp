#include "passport/access_control.h"

#include <algorithm>
#include <array>
#include <span>

#include "core/session/card_relay.h"
#include "crypto/key_derivation.hpp"
#include "crypto/sha1.h"
#include "passport/mutual_authentication.hpp"
#include "util/byte_text.h"
#include "util/secret.hpp"

namespace {

using Bytes = std::span<const uint8_t>;

constexpr size_t kSeedLen = 16;
constexpr size_t kDigestLen = tq::kMrzDigestLen;

constexpr std::array<uint32_t, 3> kWeights = {7, 3, 1};  // of a check digit, ICAO 9303-3 section 4.9

// ISO/IEC 7816-4; the first names the application of ICAO 9303-10.
constexpr uint8_t kSelectApplication[] = {0x00, 0xA4, 0x04, 0x0C, 0x07, 0xA0,
                                          0x00, 0x00, 0x02, 0x47, 0x10, 0x01};
constexpr uint8_t kGetChallenge[] = {0x00, 0x84, 0x00, 0x00, 0x08};

// "<" and whatever does not belong in the machine-readable zone count 0.
uint32_t value_of(uint8_t c) {
  if (c >= '0' && c <= '9') return c - uint32_t{'0'};
  if (c >= 'A' && c <= 'Z') return c - uint32_t{'A'} + 10;
  return 0;
}

// Absorbs a field in upper case, and its check digit.
bool absorb_field(TQSHA1Context& ctx, const char* field) {
  uint32_t sum = 0;
  for (size_t i = 0; field[i] != '\0'; ++i) {
    const auto c = static_cast<uint8_t>(my_toupper(static_cast<uint8_t>(field[i])));
    sum = (sum + kWeights[i % kWeights.size()] * value_of(c)) % 10;
    if (TQSHA1Input(&ctx, &c, 1) != shaSuccess) return false;
  }
  const auto check_digit = static_cast<uint8_t>('0' + sum);
  return TQSHA1Input(&ctx, &check_digit, 1) == shaSuccess;
}

int32_t send(SessionConfig* ctx, Bytes command, uint8_t next_step) {
  return tq_read_card_send(ctx, command.data(), static_cast<uint32_t>(command.size()), next_step);
}

}  // namespace

namespace tq {

bool digest_mrz(const char* number, const char* birth, const char* expiry,
                std::span<uint8_t, kMrzDigestLen> out) {
  if (number == nullptr || birth == nullptr || expiry == nullptr) return false;
  TQSHA1Context ctx;
  const WipeOnExit wipe_ctx(ctx);
  return TQSHA1Reset(&ctx) == shaSuccess && absorb_field(ctx, number) && absorb_field(ctx, birth) &&
         absorb_field(ctx, expiry) && TQSHA1Result(&ctx, out.data()) == shaSuccess;
}

}  // namespace tq

extern "C" {

int32_t create_bassis_key(const char* number, const char* birth, const char* expiry, uint8_t* kenc_out,
                          uint8_t* kmac_out) {
  tq::Secret<kDigestLen> digest;  // its first 16 bytes are the key seed
  if (!tq::digest_mrz(number, birth, expiry, digest.bytes())) return TQ_FAILED;
  return create_key_share(digest.data(), kenc_out, kmac_out);
}

int32_t create_key_share(const uint8_t* seed16, uint8_t* kenc_out, uint8_t* kmac_out) {
  if (seed16 == nullptr || kenc_out == nullptr || kmac_out == nullptr) return TQ_FAILED;
  tq::Secret<kSeedLen> seed;  // an output may be in its place
  std::copy_n(seed16, kSeedLen, seed.data());
  const auto derive = [&seed](tq::KeyUse use, uint8_t* out) {
    const std::span<uint8_t> key(out, tq::kTwoKeyLen);
    tq::derive_key(seed.bytes(), use, key);
    tq::set_des_parity(key);
  };
  derive(tq::KeyUse::kEncryption, kenc_out);
  derive(tq::KeyUse::kMac, kmac_out);
  return TQ_OK;
}

int32_t passport_find_card(SessionConfig* ctx, uint8_t next_step) {
  return send(ctx, kSelectApplication, next_step);
}

int32_t passport_rand_number_IC(SessionConfig* ctx, uint8_t next_step) {
  return send(ctx, kGetChallenge, next_step);
}

int32_t passport_external_auth(SessionConfig* ctx, const uint8_t* e_ifd32, const uint8_t* m_ifd8,
                               uint8_t next_step) {
  if (e_ifd32 == nullptr || m_ifd8 == nullptr) return TQ_FAILED;
  tq::Cryptogram cryptogram{};
  std::copy_n(e_ifd32, cryptogram.e_ifd.size(), cryptogram.e_ifd.begin());
  std::copy_n(m_ifd8, cryptogram.m_ifd.size(), cryptogram.m_ifd.begin());
  return tq::send_cryptogram(ctx, cryptogram, tq::kCryptogramLen, next_step);
}

}  // extern "C"
