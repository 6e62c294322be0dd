// Content types and alerts: RFC 5246 sections 6.2.1 and 7.2, and the alerts of RFC 6066.
#pragma once

#include <cstdint>

namespace tq::tls {

inline constexpr uint32_t kTls12 = 0x0303;

enum class ContentType : uint8_t {
  kChangeCipherSpec = 20,
  kAlert = 21,
  kHandshake = 22,
  kApplicationData = 23,
};

enum class AlertLevel : uint8_t { kWarning = 1, kFatal = 2 };

enum class Alert : uint8_t {
  kCloseNotify = 0,
  kUnexpectedMessage = 10,
  kBadRecordMac = 20,
  kRecordOverflow = 22,
  kHandshakeFailure = 40,
  kBadCertificate = 42,
  kUnsupportedCertificate = 43,
  kIllegalParameter = 47,
  kDecodeError = 50,
  kDecryptError = 51,
  kProtocolVersion = 70,
  kInternalError = 80,
  kNoRenegotiation = 100,
  kUnsupportedExtension = 110,
};

}  // namespace tq::tls
