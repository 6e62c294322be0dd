// Two-key triple DES as Basic Access Control and secure messaging use it (ICAO 9303-11 sections 4.3 and 9.8):
// CBC from a vector of zeros, and the retail MAC (ISO/IEC 9797-1, algorithm 3). Keys are 16 bytes. No key
// schedule stays behind.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace tq {

constexpr size_t kDesBlockLen = 8;
constexpr size_t kTwoKeyLen = 16;
constexpr size_t kRetailMacLen = 8;

using TwoKey = std::span<const uint8_t, kTwoKeyLen>;

// `in` is whole blocks; `out` has the same room and may be `in`. False, and nothing written, for any other
// length.
[[nodiscard]] bool three_des_encrypt(TwoKey key, std::span<const uint8_t> in, uint8_t* out);
[[nodiscard]] bool three_des_decrypt(TwoKey key, std::span<const uint8_t> in, uint8_t* out);

// Over whole blocks, padded already; bytes behind the last of them do not count.
void retail_mac(TwoKey key, std::span<const uint8_t> blocks, std::span<uint8_t, kRetailMacLen> out);

}  // namespace tq
