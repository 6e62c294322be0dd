// The RSA key of an X.509 certificate (RFC 5280 section 4.1, RFC 3279 section 2.3.1, RFC 8017 appendix
// A.1.1).
#pragma once

#include <cstdint>
#include <span>

#include "crypto/rsa.hpp"

namespace tq::tls {

enum class KeyResult : uint8_t {
  kFound,
  kMalformed,    // not the DER of a certificate
  kUnsupported,  // a certificate, but not with a usable RSA key of 1024 to 8192 bits, exponent up to 64
};

// Walks to the key; nothing else in the certificate is judged. `key` borrows from `certificate`.
[[nodiscard]] KeyResult read_certificate_key(std::span<const uint8_t> certificate, RsaPublicKey& key);

}  // namespace tq::tls
