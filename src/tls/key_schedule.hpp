// The keys of a connection: RFC 5246 sections 5 (PRF with SHA-256), 6.3, 7.4.9 and 8.1.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "tls/record_protection.hpp"
#include "tls/suite.hpp"
#include "util/secret.hpp"

namespace tq::tls {

inline constexpr size_t kRandomLen = 32;
inline constexpr size_t kPremasterLen = 48;
inline constexpr size_t kMasterLen = 48;
inline constexpr size_t kVerifyDataLen = 12;

struct HelloRandoms {
  std::array<uint8_t, kRandomLen> client;
  std::array<uint8_t, kRandomLen> server;
};

// PRF(secret, label, seed1 + seed2), of any length.
void prf(std::span<const uint8_t> secret, const char* label, std::span<const uint8_t> seed1,
         std::span<const uint8_t> seed2, std::span<uint8_t> out);

void derive_master_secret(std::span<const uint8_t, kPremasterLen> premaster, const HelloRandoms& randoms,
                          std::span<uint8_t, kMasterLen> master);

// The MAC and cipher keys of both sides.
class KeyBlock {
 public:
  KeyBlock(const Suite& suite, std::span<const uint8_t, kMasterLen> master, const HelloRandoms& randoms);

  void start_client_side(RecordProtection& protection) const;
  void start_server_side(RecordProtection& protection) const;

 private:
  const Suite& suite_;
  Secret<2 * (kMaxMacLen + kCipherKeyLen)> block_;
};

enum class Side : uint8_t { kClient, kServer };

// The verify_data of a Finished message, for the SHA-256 of all messages before it.
void derive_verify_data(Side side, std::span<const uint8_t, kMasterLen> master,
                        std::span<const uint8_t, Sha256::kDigestLen> transcript,
                        std::span<uint8_t, kVerifyDataLen> out);

}  // namespace tq::tls
