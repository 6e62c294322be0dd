// AES with keys of 128, 192 and 256 bits (FIPS 197): single blocks, CBC (NIST SP 800-38A, without padding)
// and CMAC (NIST SP 800-38B).
//
// Neither time nor the addresses touched depend on keys or data: bytes are substituted by reckoning in the
// field, sixteen at a time, not by a table. That is for the keys of a document, at some hundred bytes a
// message. crypto/aes128.hpp is faster, for the records of a connection.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace tq {

// A key. Wipes itself.
class Aes {
 public:
  static constexpr size_t kBlockLen = 16;
  static constexpr size_t kMaxNumRounds = 14;

  using Block = uint8_t __attribute__((vector_size(kBlockLen)));  // the state, as its bytes come

  // A key of 16, 24 or 32 bytes.
  explicit Aes(std::span<const uint8_t> key);
  ~Aes();
  Aes(const Aes&) = delete;
  Aes& operator=(const Aes&) = delete;

  Block encrypt(Block block) const;
  Block decrypt(Block block) const;

 private:
  size_t num_rounds_;
  std::array<Block, kMaxNumRounds + 1> round_keys_;
};

// Whole blocks: `in` is a multiple of 16 bytes, what goes beyond is left alone; `out` has the same length at
// least and may be `in` itself, but not overlap it otherwise. `iv` ends up as the last ciphertext block, so
// that calls chain.
void aes_cbc_encrypt(const Aes& key, std::span<uint8_t, Aes::kBlockLen> iv, std::span<const uint8_t> in,
                     std::span<uint8_t> out);
void aes_cbc_decrypt(const Aes& key, std::span<uint8_t, Aes::kBlockLen> iv, std::span<const uint8_t> in,
                     std::span<uint8_t> out);

// The CMAC of one message, which may come in pieces of any length. Wipes itself; borrows the key.
class Cmac {
 public:
  static constexpr size_t kMacLen = Aes::kBlockLen;

  explicit Cmac(const Aes& key) : key_(key) {}
  ~Cmac();
  Cmac(const Cmac&) = delete;
  Cmac& operator=(const Cmac&) = delete;

  void update(std::span<const uint8_t> data);
  void finish(std::span<uint8_t, kMacLen> mac);  // the next message may follow

 private:
  const Aes& key_;
  Aes::Block chain_{};
  std::array<uint8_t, Aes::kBlockLen> last_{};  // bytes that wait: a whole block, too, for it may be the last
  size_t fill_ = 0;
};

}  // namespace tq
