#include "crypto/key_derivation.hpp"

#include <algorithm>
#include <array>

#include "crypto/des.h"
#include "crypto/sha1.hpp"
#include "crypto/sha256.hpp"
#include "util/endian.hpp"
#include "util/secret.hpp"

namespace tq {
namespace {

constexpr size_t kLongestOfSha1 = 16;
constexpr size_t kDesKeyLen = 8;

template <class Hash>
void derive(std::span<const uint8_t> secret, KeyUse use, std::span<uint8_t> key) {
  std::array<uint8_t, 4> counter;
  store_be32(static_cast<uint32_t>(use), counter.data());
  Hash hash;
  Secret<Hash::kDigestLen> digest;
  hash.update(secret);
  hash.update(counter);
  hash.finish(digest.bytes());
  std::copy_n(digest.data(), std::min(key.size(), digest.size()), key.begin());
}

}  // namespace

void derive_key(std::span<const uint8_t> secret, KeyUse use, std::span<uint8_t> key) {
  if (key.size() <= kLongestOfSha1) {
    derive<Sha1>(secret, use, key);
  } else {
    derive<Sha256>(secret, use, key);
  }
}

void set_des_parity(std::span<uint8_t> key) {
  for (; key.size() >= kDesKeyLen; key = key.subspan(kDesKeyLen)) tq_des_key_set_parity(key.data());
}

}  // namespace tq
