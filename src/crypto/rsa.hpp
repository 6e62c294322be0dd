// The RSA public operation (RFC 8017 section 5.1.1) in Montgomery arithmetic with 64-bit limbs. Padding is
// the caller's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace tq {

inline constexpr size_t kMinRsaBits = 1024;
inline constexpr size_t kMaxRsaBits = 8192;

// Borrowed big-endian numbers without leading zeros.
struct RsaPublicKey {
  std::span<const uint8_t> modulus;
  std::span<const uint8_t> exponent;
};

// Whether the key can be used: an odd modulus of 1024 to 8192 bits, an odd exponent of 3 or more that is
// smaller than the modulus, neither with a leading zero. Primality and the like are not looked at.
[[nodiscard]] bool rsa_key_usable(const RsaPublicKey& key);

// message^exponent mod modulus. `message` and `out` are exactly as long as the modulus, big-endian, and may
// be the same bytes; the message is below the modulus.
// Neither time nor the addresses touched depend on the message, whether it is refused or not.
// False, and `out` untouched, when a length or the message is out of range, the key is not usable, or there
// is no memory (five times the modulus, wiped afterwards).
[[nodiscard]] bool rsa_public(const RsaPublicKey& key, std::span<const uint8_t> message,
                              std::span<uint8_t> out);

}  // namespace tq
