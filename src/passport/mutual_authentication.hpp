// Opening a chip by Basic Access Control (ICAO Doc 9303-11 section 4.3): the document keys, the cryptogram of
// the mutual authentication, and the secure channel that comes of it.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "core/config/session_config.h"
#include "passport/access_control.h"
#include "passport/mrz_checks.h"
#include "passport/secure_channel.hpp"
#include "passport/three_des.hpp"
#include "util/secret.hpp"

namespace tq {

// What opens the chip, each field ended by zeros.
struct MrzFields {
  char number[TQ_DOCUMENT_NUMBER_SIZE];
  char birth[TQ_MRZ_DATE_SIZE];
  char expiry[TQ_MRZ_DATE_SIZE];
};

constexpr size_t kMrzDigestLen = 20;

// SHA-1 of the fields, each with its check digit behind it; the keys come of it. Null pointers are refused.
[[nodiscard]] bool digest_mrz(const char* number, const char* birth, const char* expiry,
                              std::span<uint8_t, kMrzDigestLen> out);

// What the two sides bring along.
struct BasicAccess {
  Secret<kTwoKeyLen> enc;  // document keys
  Secret<kTwoKeyLen> mac;
  Secret<8> rnd_ic;   // the chip's challenge
  Secret<8> rnd_ifd;  // drawn by the reader
  Secret<16> k_ifd;
};

// Sets `enc` and `mac`.
[[nodiscard]] bool derive_document_keys(const MrzFields& mrz, BasicAccess& access);

struct Cryptogram {
  std::array<uint8_t, TQ_E_IFD_LENGTH> e_ifd;
  std::array<uint8_t, TQ_RETAIL_MAC_LENGTH> m_ifd;
};

// Encrypts both nonces and the reader's part of the key.
[[nodiscard]] bool make_cryptogram(const BasicAccess& access, Cryptogram& out);

// Expected length that EXTERNAL AUTHENTICATE tells, and the one for chips that refuse it.
constexpr uint8_t kCryptogramLen = 0x28;
constexpr uint8_t kAnyLen = 0x00;

// Sends it in EXTERNAL AUTHENTICATE; returns what tq_read_card_send does.
int32_t send_cryptogram(SessionConfig* cfg, const Cryptogram& cryptogram, uint8_t le, uint8_t step);

// The chip has proved that it knows the document keys when both nonces come back; its MAC is not looked at.
// Starts the channel.
[[nodiscard]] bool open_channel(std::span<const uint8_t> answer, const BasicAccess& access,
                                SecureChannel& channel);

}  // namespace tq
