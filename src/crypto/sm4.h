/* SM4 (GB/T 32907-2016), ECB and CBC, without padding. Keys, blocks and vectors are 16 bytes.
   A context is a key schedule in the caller's hands; wipe it after use. Encryption and decryption differ in
   the schedule only. Lengths are bytes; below 1 nothing happens, and a length that is no multiple of 16
   stands for the next one: whole blocks are read and written. The output may be the input itself, but not
   overlap it otherwise. No pointer may be null. */
#ifndef TQREADER_CRYPTO_SM4_H
#define TQREADER_CRYPTO_SM4_H

#include "util/api.h"

TQ_BEGIN_C

typedef struct {
  uint32_t mode;   /* 1 after setkey_enc, 0 after setkey_dec; for information */
  uint32_t rk[32]; /* round keys, in the order of use */
} TQ_SM4_CTX;

TQ_API void TQ_sm4_setkey_enc(TQ_SM4_CTX* ctx, const uint8_t key[16]);
TQ_API void TQ_sm4_setkey_dec(TQ_SM4_CTX* ctx, const uint8_t key[16]);

/* `mode` is ignored: the schedule decides. */
TQ_API void TQ_sm4_crypt_ecb(const TQ_SM4_CTX* ctx, int32_t mode, int32_t length, const uint8_t* input,
                             uint8_t* output);

/* `mode` 1 encrypts, any other decrypts. `iv` ends up as the last ciphertext block, so that calls chain. */
TQ_API void TQ_sm4_crypt_cbc(const TQ_SM4_CTX* ctx, int32_t mode, int32_t length, uint8_t iv[16],
                             const uint8_t* input, uint8_t* output);

/* The same under the names of the location service. */
TQ_API void scp_sm4_setkey_enc(TQ_SM4_CTX* ctx, const uint8_t key[16]);
TQ_API void scp_sm4_setkey_dec(TQ_SM4_CTX* ctx, const uint8_t key[16]);
TQ_API void scp_sm4_crypt_ecb(const TQ_SM4_CTX* ctx, int32_t mode, int32_t length, const uint8_t* input,
                              uint8_t* output);
TQ_API void scp_sm4_crypt_cbc(const TQ_SM4_CTX* ctx, int32_t mode, int32_t length, uint8_t iv[16],
                              const uint8_t* input, uint8_t* output);

TQ_END_C

#endif
