// RSA key transport: RFC 5246 section 7.4.7.1, RFC 8017 section 7.2.1 (RSAES-PKCS1-v1_5).
#pragma once

#include <cstdint>
#include <span>

#include "crypto/rsa.hpp"
#include "tls/environment.hpp"
#include "tls/key_schedule.hpp"

namespace tq::tls {

// The version offered and 46 random bytes. False when there are no random bytes.
[[nodiscard]] bool make_premaster(RandomSource& random, std::span<uint8_t, kPremasterLen> premaster);

// Encrypts for the owner of `key`; `out` is exactly as long as its modulus. False when there are no random
// bytes or the key cannot be used.
[[nodiscard]] bool encrypt_premaster(const RsaPublicKey& key,
                                     std::span<const uint8_t, kPremasterLen> premaster, RandomSource& random,
                                     std::span<uint8_t> out);

}  // namespace tq::tls
