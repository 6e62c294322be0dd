#include "passport/three_des.hpp"

#include <algorithm>
#include <limits>

#include "crypto/des.h"
#include "util/secret.hpp"

namespace tq {
namespace {

enum Direction : int32_t { kDecrypt = 0, kEncrypt = 1 };

bool crypt(Direction direction, TwoKey key, std::span<const uint8_t> in, uint8_t* out) {
  if (in.size() > size_t{std::numeric_limits<int32_t>::max()}) return false;
  TQ_DES3_CTX ctx;
  const WipeOnExit wipe_ctx(ctx);
  (direction == kEncrypt ? tq_des3_set2key_enc : tq_des3_set2key_dec)(&ctx, key.data());
  Secret<kDesBlockLen> chain;
  return tq_des3_crypt_cbc(&ctx, direction, static_cast<int32_t>(in.size()), chain.data(), in.data(), out) ==
         0;
}

}  // namespace

bool three_des_encrypt(TwoKey key, std::span<const uint8_t> in, uint8_t* out) {
  return crypt(kEncrypt, key, in, out);
}

bool three_des_decrypt(TwoKey key, std::span<const uint8_t> in, uint8_t* out) {
  return crypt(kDecrypt, key, in, out);
}

void retail_mac(TwoKey key, std::span<const uint8_t> blocks, std::span<uint8_t, kRetailMacLen> out) {
  TQ_DES_CTX encrypt;
  TQ_DES_CTX decrypt;
  const WipeOnExit wipe_encrypt(encrypt);
  const WipeOnExit wipe_decrypt(decrypt);
  tq_des_setkey_enc(&encrypt, key.data());
  tq_des_setkey_dec(&decrypt, key.data() + kDesBlockLen);

  Secret<kDesBlockLen> chain;
  Secret<64> ciphertext;  // only the last block of it matters, and that is in `chain`
  blocks = blocks.first(blocks.size() - blocks.size() % kDesBlockLen);
  while (!blocks.empty()) {
    const auto piece = blocks.first(std::min(blocks.size(), ciphertext.size()));
    tq_des_crypt_cbc(&encrypt, 1, static_cast<int32_t>(piece.size()), chain.data(), piece.data(),
                     ciphertext.data());
    blocks = blocks.subspan(piece.size());
  }
  tq_des_crypt_ecb(&decrypt, chain.data(), chain.data());
  tq_des_crypt_ecb(&encrypt, chain.data(), out.data());
}

}  // namespace tq
