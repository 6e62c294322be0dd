// The protection of records in one direction: none at first, then a cipher and a MAC. RFC 5246 sections 6.1
// and 6.2.3.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "crypto/aes128.hpp"
#include "crypto/rc4.hpp"
#include "tls/alert.hpp"
#include "tls/environment.hpp"
#include "tls/suite.hpp"
#include "util/secret.hpp"

namespace tq::tls {

// The largest difference between a sealed fragment and its content: vector, MAC and padding.
inline constexpr size_t kMaxSealingLen = Aes128::kBlockLen + kMaxMacLen + Aes128::kBlockLen;

// Keys and sequence number of one direction. The sequence number 2^64 - 1 is never used, so it cannot wrap.
class RecordProtection {
 public:
  // From the next record on. `mac_key` has the length of the suite's MAC. The numbers start at
  // `sequence_number`, which is 0 but in tests.
  void start(const Suite& suite, std::span<const uint8_t> mac_key,
             std::span<const uint8_t, kCipherKeyLen> cipher_key, uint64_t sequence_number = 0);

  bool started() const { return suite_ != nullptr; }

  // Writes the fragment for `content` to `out`, which has room for kMaxSealingLen more and does not overlap
  // it. Returns its length, 0 when there are no random bytes or no sequence numbers left.
  [[nodiscard]] size_t seal(ContentType type, std::span<const uint8_t> content, RandomSource& random,
                            std::span<uint8_t> out);

  // Opens a fragment in its place; `content` lies in it then. False when it is not authentic, for whatever
  // reason, and for a fragment too many.
  [[nodiscard]] bool open(ContentType type, std::span<uint8_t> fragment, std::span<uint8_t>& content);

 private:
  size_t seal_cbc(const Aes128& aes, std::span<uint8_t> out, size_t plain_len, RandomSource& random);
  bool open_cbc(const Aes128& aes, ContentType type, std::span<uint8_t> fragment,
                std::span<uint8_t>& content);
  bool open_stream(Rc4& rc4, ContentType type, std::span<uint8_t> fragment, std::span<uint8_t>& content);
  std::span<const uint8_t> mac_key() const { return mac_key_.bytes().first(suite_->mac_len); }

  const Suite* suite_ = nullptr;
  Secret<kMaxMacLen> mac_key_;
  std::optional<Aes128> aes_;
  std::optional<Rc4> rc4_;
  uint64_t sequence_number_ = 0;
};

}  // namespace tq::tls
