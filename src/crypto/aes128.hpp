// AES-128 (FIPS 197) in CBC mode (NIST SP 800-38A), without padding.
//
// The rounds look bytes of the state up in tables, so which lines of the cache are touched depends on key and
// data. A program that shares a processor core and measures its cache could learn about them; a peer across
// the network sees nothing but the whole time. A key serves one connection, and no instructions of a certain
// processor are asked for: for that the tables are accepted.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace tq {

// The key schedules of both directions. Wipes itself.
class Aes128 {
 public:
  static constexpr size_t kBlockLen = 16;
  static constexpr size_t kKeyLen = 16;
  static constexpr size_t kNumRounds = 10;

  using Schedule = std::array<uint32_t, 4 * (kNumRounds + 1)>;  // a round key is four big-endian words

  explicit Aes128(std::span<const uint8_t, kKeyLen> key);
  ~Aes128();
  Aes128(const Aes128&) = delete;
  Aes128& operator=(const Aes128&) = delete;

  const Schedule& encryption() const { return encryption_; }
  const Schedule& decryption() const { return decryption_; }  // for the equivalent inverse cipher

 private:
  Schedule encryption_;
  Schedule decryption_;
};

// Whole blocks: `in` is a multiple of 16 bytes, what goes beyond is left alone; `out` has the same length at
// least and may be `in` itself, but not overlap it otherwise. `iv` ends up as the last ciphertext block, so
// that calls chain.
void aes128_cbc_encrypt(const Aes128& key, std::span<uint8_t, Aes128::kBlockLen> iv,
                        std::span<const uint8_t> in, std::span<uint8_t> out);
void aes128_cbc_decrypt(const Aes128& key, std::span<uint8_t, Aes128::kBlockLen> iv,
                        std::span<const uint8_t> in, std::span<uint8_t> out);

}  // namespace tq
