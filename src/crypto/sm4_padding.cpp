#include "crypto/sm4_padding.h"

#include <algorithm>
#include <limits>
#include <span>

#include "crypto/sm3.h"
#include "crypto/sm4.h"
#include "util/secret.hpp"

namespace {

constexpr int32_t kBlockLen = 16;
constexpr size_t kDigestLen = 32;  // of SM3
constexpr int32_t kEncrypt = 1;
constexpr int32_t kDecrypt = 0;
constexpr int32_t kModeCbc = 0;

enum class Cipher { kCbc, kEcb, kNone };

using Key = std::span<const uint8_t, kBlockLen>;

// The vector is copied: under one key every message starts from the same one.
void run_cipher(const TQ_SM4_CTX& ctx, int32_t direction, Cipher cipher, Key iv, const uint8_t* data,
                int32_t length, uint8_t* out) {
  if (cipher == Cipher::kCbc) {
    tq::Secret<kBlockLen> chain;
    std::copy(iv.begin(), iv.end(), chain.data());
    TQ_sm4_crypt_cbc(&ctx, direction, length, chain.data(), data, out);
  } else if (cipher == Cipher::kEcb) {
    TQ_sm4_crypt_ecb(&ctx, direction, length, data, out);
  }
}

int32_t encrypt_padded(uint8_t* data, int32_t length, Key key, Key iv, Cipher cipher, uint8_t* out) {
  if (length < 0 || length > std::numeric_limits<int32_t>::max() - kBlockLen) return -1;
  const int32_t padding = kBlockLen - length % kBlockLen;
  std::fill_n(data + length, padding, static_cast<uint8_t>(padding));
  TQ_SM4_CTX ctx;
  const tq::WipeOnExit wipe_ctx(ctx);
  TQ_sm4_setkey_enc(&ctx, key.data());
  run_cipher(ctx, kEncrypt, cipher, iv, data, length + padding, out);
  return length + padding;
}

int32_t decrypt_padded(const uint8_t* data, int32_t length, Key key, Key iv, Cipher cipher, uint8_t* out) {
  if (length < 1 || (cipher != Cipher::kNone && length % kBlockLen != 0)) return -1;
  TQ_SM4_CTX ctx;
  const tq::WipeOnExit wipe_ctx(ctx);
  TQ_sm4_setkey_dec(&ctx, key.data());
  run_cipher(ctx, kDecrypt, cipher, iv, data, length, out);
  const int32_t padding = out[length - 1];
  if (padding > length) return -1;
  std::fill_n(out + (length - padding), padding, uint8_t{0});
  return length - padding;
}

Cipher decode_server_cipher(int32_t mode) {
  return mode == kModeCbc ? Cipher::kCbc : Cipher::kNone;
}

Cipher location_server_cipher(int32_t mode) {
  return mode == kModeCbc ? Cipher::kCbc : Cipher::kEcb;
}

}  // namespace

extern "C" {

void TQ_sm4InitIv(const uint8_t key[16], uint8_t iv[16]) {
  tq::Secret<kDigestLen> digest;
  TQ_sm3(key, kBlockLen, digest.data());
  for (size_t i = 0; i < kBlockLen; ++i) iv[i] = digest.data()[i] ^ digest.data()[i + kBlockLen];
}

int32_t TQ_sm4Encrypt(uint8_t* data, int32_t length, const uint8_t key_block[32], int32_t mode,
                      uint8_t* out) {
  if (data == nullptr || key_block == nullptr || out == nullptr) return -1;
  return encrypt_padded(data, length, Key(key_block, kBlockLen), Key(key_block + kBlockLen, kBlockLen),
                        decode_server_cipher(mode), out);
}

int32_t TQ_sm4Decrypt(const uint8_t* data, int32_t length, const uint8_t key_block[32], int32_t mode,
                      uint8_t* out) {
  if (data == nullptr || key_block == nullptr || out == nullptr) return -1;
  return decrypt_padded(data, length, Key(key_block, kBlockLen), Key(key_block + kBlockLen, kBlockLen),
                        decode_server_cipher(mode), out);
}

int32_t scp_sm4Encrypt(uint8_t* data, int32_t length, const uint8_t key[16], int32_t mode, uint8_t* out) {
  if (data == nullptr || key == nullptr || out == nullptr) return -1;
  tq::Secret<kBlockLen> iv;
  TQ_sm4InitIv(key, iv.data());
  return encrypt_padded(data, length, Key(key, kBlockLen), iv.bytes(), location_server_cipher(mode), out);
}

int32_t scp_sm4Decrypt(const uint8_t* data, int32_t length, const uint8_t key[16], int32_t mode,
                       uint8_t* out) {
  if (data == nullptr || key == nullptr || out == nullptr) return -1;
  tq::Secret<kBlockLen> iv;
  TQ_sm4InitIv(key, iv.data());
  return decrypt_padded(data, length, Key(key, kBlockLen), iv.bytes(), location_server_cipher(mode), out);
}

}  // extern "C"
