// The key derivation of passports (ICAO Doc 9303-11 section 9.7.1): the first bytes of a digest of secret and
// counter.
#pragma once

#include <cstdint>
#include <span>

namespace tq {

// The counter.
enum class KeyUse : uint32_t { kEncryption = 1, kMac = 2, kPassword = 3 };

// Fills `key`: of 16 bytes, for 3DES with two keys or AES-128, from SHA-1; of 24 or 32, for AES-192 and
// AES-256, from SHA-256. The secret has its full length, leading zeros included.
void derive_key(std::span<const uint8_t> secret, KeyUse use, std::span<uint8_t> key);

// Sets the parity bits of a key for 3DES.
void set_des_parity(std::span<uint8_t> key);

}  // namespace tq
