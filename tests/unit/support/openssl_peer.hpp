// What OpenSSL makes of the same input.
#pragma once

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/provider.h>

#include <cstdlib>
#include <memory>

#include "support/bytes.hpp"

namespace test {

// OpenSSL does what it is asked, or the test is broken.
inline void must(bool done) {
  if (!done) std::abort();
}

// Single DES stands in the legacy provider; loading that by hand leaves the default one to be loaded by hand,
// too.
class OpenSslProviders {
 public:
  OpenSslProviders()
      : default_(OSSL_PROVIDER_load(nullptr, "default")), legacy_(OSSL_PROVIDER_load(nullptr, "legacy")) {}
  ~OpenSslProviders() {
    OSSL_PROVIDER_unload(legacy_);
    OSSL_PROVIDER_unload(default_);
  }
  OpenSslProviders(const OpenSslProviders&) = delete;
  OpenSslProviders& operator=(const OpenSslProviders&) = delete;
  bool loaded() const { return default_ != nullptr && legacy_ != nullptr; }

 private:
  OSSL_PROVIDER* default_;
  OSSL_PROVIDER* legacy_;
};

inline Bytes openssl_digest(const EVP_MD* md, const Bytes& data) {
  Bytes digest(static_cast<size_t>(EVP_MD_get_size(md)));
  must(EVP_Digest(data.data(), data.size(), digest.data(), nullptr, md, nullptr) == 1);
  return digest;
}

inline Bytes openssl_hmac(const EVP_MD* md, const Bytes& key, const Bytes& data) {
  Bytes mac(static_cast<size_t>(EVP_MD_get_size(md)));
  const uint8_t empty = 0;
  must(HMAC(md, key.empty() ? &empty : key.data(), static_cast<int>(key.size()), data.data(), data.size(),
            mac.data(), nullptr) != nullptr);
  return mac;
}

// With AES of the key's length.
inline Bytes openssl_cmac(const Bytes& key, const Bytes& data) {
  const char* const cipher = key.size() == 16   ? "AES-128-CBC"
                             : key.size() == 24 ? "AES-192-CBC"
                                                : "AES-256-CBC";
  Bytes mac(16);
  size_t len = 0;
  must(EVP_Q_mac(nullptr, "CMAC", nullptr, cipher, nullptr, key.data(), key.size(), data.data(), data.size(),
                 mac.data(), mac.size(), &len) != nullptr);
  return mac;
}

// The vector that belongs to an SM4 key: both halves of the key's SM3 digest, folded.
inline Bytes folded_vector(const Bytes& key) {
  Bytes digest = openssl_digest(EVP_sm3(), key);
  for (size_t i = 0; i < 16; ++i) digest[i] ^= digest[i + 16];
  digest.resize(16);
  return digest;
}

// Whole blocks, no padding. An empty `iv` is for ECB.
inline Bytes openssl_cipher(const EVP_CIPHER* cipher, bool encrypt, const Bytes& key, const Bytes& iv,
                            const Bytes& data) {
  static const OpenSslProviders providers;
  must(providers.loaded());
  const std::unique_ptr<EVP_CIPHER_CTX, void (*)(EVP_CIPHER_CTX*)> ctx(EVP_CIPHER_CTX_new(),
                                                                       EVP_CIPHER_CTX_free);
  Bytes out(data.size() + EVP_MAX_BLOCK_LENGTH);
  int head = 0;
  int tail = 0;
  must(EVP_CipherInit_ex(ctx.get(), cipher, nullptr, key.data(), iv.empty() ? nullptr : iv.data(), encrypt) ==
       1);
  EVP_CIPHER_CTX_set_padding(ctx.get(), 0);
  must(EVP_CipherUpdate(ctx.get(), out.data(), &head, data.data(), static_cast<int>(data.size())) == 1);
  must(EVP_CipherFinal_ex(ctx.get(), out.data() + head, &tail) == 1);
  out.resize(static_cast<size_t>(head + tail));
  return out;
}

}  // namespace test
