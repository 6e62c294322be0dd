// The mutual authentication of Basic Access Control (ICAO Doc 9303-11 section 4.3), over the session of one
// read.
#pragma once

#include <array>
#include <cstdint>
#include <span>

#include "passport/access_control.h"
#include "passport/mrz_checks.h"
#include "passport/passport_session_record.h"

namespace tq {

// What opens the chip, each field ended by zeros.
struct MrzFields {
  char number[TQ_DOCUMENT_NUMBER_SIZE];
  char birth[TQ_MRZ_DATE_SIZE];
  char expiry[TQ_MRZ_DATE_SIZE];
};

// Sets `kenc` and `kmac`.
[[nodiscard]] bool derive_document_keys(const MrzFields& mrz, PassportSession& session);

struct Cryptogram {
  std::array<uint8_t, TQ_E_IFD_LENGTH> e_ifd;
  std::array<uint8_t, TQ_RETAIL_MAC_LENGTH> m_ifd;
};

// Encrypts the nonces and the key part `kIFD` of the session.
[[nodiscard]] bool make_cryptogram(const PassportSession& session, Cryptogram& out);

// The chip has proved that it knows the document keys when both nonces come back; its MAC is not looked at.
// Sets `ksenc`, `ksmac` and `ssc`.
[[nodiscard]] bool derive_session_keys(std::span<const uint8_t> answer, PassportSession& session);

}  // namespace tq
