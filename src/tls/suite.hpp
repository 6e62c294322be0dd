// The cipher suites, as a table.
#pragma once

#include <cstddef>
#include <cstdint>

#include "crypto/aes128.hpp"
#include "crypto/md5.hpp"
#include "crypto/sha1.hpp"
#include "crypto/sha256.hpp"

namespace tq::tls {

enum class Cipher : uint8_t { kAes128Cbc, kRc4 };
enum class Mac : uint8_t { kSha256, kSha1, kMd5 };

struct Suite {
  uint16_t id;
  Cipher cipher;
  Mac mac;
  size_t mac_len;  // of the key and of the MAC itself
};

// RFC 5246 appendix A.5 and RFC 2246 appendix A.5, in the order offered. All of them have keys of 16 bytes
// and RSA key transport, and with TLS 1.2 all of them use the PRF with SHA-256.
inline constexpr Suite kSuites[] = {
    {0x003C, Cipher::kAes128Cbc, Mac::kSha256, Sha256::kDigestLen},
    {0x002F, Cipher::kAes128Cbc, Mac::kSha1, Sha1::kDigestLen},
    {0x0005, Cipher::kRc4, Mac::kSha1, Sha1::kDigestLen},
    {0x0004, Cipher::kRc4, Mac::kMd5, Md5::kDigestLen},
};

inline constexpr size_t kCipherKeyLen = Aes128::kKeyLen;
inline constexpr size_t kMaxMacLen = Sha256::kDigestLen;

}  // namespace tq::tls
