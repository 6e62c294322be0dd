// Secure messaging with the chip (ICAO Doc 9303-11 section 9.8): two keys, a send sequence counter and a
// cipher suite with one owner, who protects commands, opens answers and is wiped when it goes.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "crypto/aes.hpp"
#include "util/secret.hpp"

namespace tq {

// Two-key triple DES with the retail MAC and a counter of 8 bytes; AES with CMAC, a counter of 16 bytes and
// the encrypted counter as vector.
enum class CipherSuite : uint8_t { k3Des, kAes128, kAes192, kAes256 };

constexpr size_t key_len(CipherSuite suite) {
  return suite == CipherSuite::kAes256 ? 32 : suite == CipherSuite::kAes192 ? 24 : 16;
}
constexpr size_t block_len(CipherSuite suite) {
  return suite == CipherSuite::k3Des ? 8 : 16;
}

// The first key_len() bytes of each are the key.
struct SessionKeys {
  CipherSuite suite = CipherSuite::k3Des;
  Secret<32> enc;
  Secret<32> mac;
};

struct PlainCommand {
  std::array<uint8_t, 4> header{};  // CLA, INS, P1, P2
  std::span<const uint8_t> data{};
  std::optional<uint8_t> le{};
  bool data_is_tlv = false;  // of an odd instruction: without padding indicator (ISO/IEC 7816-4, DO85)
};

enum class Opened : uint8_t {
  kYes,
  kMalformed,     // no protected answer
  kNotAuthentic,  // its MAC does not hold at the next counter
};

class SecureChannel {
 public:
  SecureChannel() = default;  // with keys of zeros: nothing of the chip's will open
  // A counter shorter than a block gets zeros in front.
  SecureChannel(const SessionKeys& keys, std::span<const uint8_t> counter) { start(keys, counter); }
  ~SecureChannel() { wipe(counter_); }
  SecureChannel(const SecureChannel&) = delete;
  SecureChannel& operator=(const SecureChannel&) = delete;

  // Takes up other keys.
  void start(const SessionKeys& keys, std::span<const uint8_t> counter);

  // Writes the protected command to the start of `out`, which may be the command's own bytes, and its length
  // to `len`. Moves the counter, too, when there is no room; not when the data are more than a one-byte Lc
  // can tell of. False in both cases.
  [[nodiscard]] bool protect(const PlainCommand& command, std::span<uint8_t> out, size_t& len);

  // Checks and opens the objects of an answer, given without status word. The data, as far as they fit, go to
  // `out`, which may be the answer. Only an answer that holds moves the counter and writes anything.
  [[nodiscard]] Opened open(std::span<const uint8_t> answer, std::span<uint8_t> out, size_t& len);

  // Bytes of an answer up to and with the object of its MAC; 0 for one that is not protected.
  size_t objects_len(std::span<const uint8_t> answer) const;

  // The chip has counted an answer that could not be opened.
  void count_lost_answer() { advance(); }

  // The counter, as long as a block.
  std::span<const uint8_t> counter() const { return std::span(counter_).last(block_len(keys_.suite)); }

  // Most bytes that a READ BINARY can ask for: with AES, as many as leave the answer within 256 bytes; with
  // triple DES that is left to whoever chooses the size of chunks.
  size_t most_data() const;

 private:
  using Bytes = std::span<const uint8_t>;
  using Mac = std::array<uint8_t, 8>;

  void advance();
  bool is_authentic(Bytes authenticated, Bytes mac);
  [[nodiscard]] bool encrypt(std::span<uint8_t> blocks) const;
  [[nodiscard]] bool decrypt(Bytes blocks, std::span<uint8_t> out) const;
  void make_vector(const Aes& key, std::span<uint8_t, Aes::kBlockLen> out) const;
  void compute_mac(Bytes blocks, Mac& out) const;

  SessionKeys keys_;
  std::array<uint8_t, 16> counter_{};
};

}  // namespace tq
