/* DES and triple DES (FIPS 46-3), ECB and CBC, without padding. Blocks and vectors are 8 bytes.
   A context is a key schedule in the caller's hands; wipe it after use with the free routine. Encryption and
   decryption differ in the schedule only. The output may be the input itself, but not overlap it otherwise.
   No pointer may be null, except where it is said. */
#ifndef TQREADER_CRYPTO_DES_H
#define TQREADER_CRYPTO_DES_H

#include "util/api.h"

TQ_BEGIN_C

/* A round key is two words: the two parts in memory of a 64-bit number with one of its eight groups of six
   bits in each byte. */
typedef struct {
  uint32_t sk[32];
} TQ_DES_CTX;

/* Three schedules in the order of use. */
typedef struct {
  uint32_t sk[96];
} TQ_DES3_CTX;

/* Zero the context. */
TQ_API void tq_des_init(TQ_DES_CTX* ctx);
TQ_API void tq_des3_init(TQ_DES3_CTX* ctx);

/* Wipe the context; null does nothing. */
TQ_API void tq_des_free(TQ_DES_CTX* ctx);
TQ_API void tq_des3_free(TQ_DES3_CTX* ctx);

/* Sets the lowest bit of each byte so that the byte has odd parity. */
TQ_API void tq_des_key_set_parity(uint8_t key[8]);

/* 0 when every byte has odd parity, else 1. */
TQ_API int32_t tq_des_key_check_key_parity(const uint8_t key[8]);

/* 1 for the 4 weak and 12 semi-weak keys (NIST SP 800-67 section 3.3.2, with their parity bits), else 0. */
TQ_API int32_t tq_des_key_check_weak(const uint8_t key[8]);

/* Key schedules; parity bits are ignored. All return 0. Two-key triple DES is EDE with K1, K2, K1. */
TQ_API int32_t tq_des_setkey_enc(TQ_DES_CTX* ctx, const uint8_t key[8]);
TQ_API int32_t tq_des_setkey_dec(TQ_DES_CTX* ctx, const uint8_t key[8]);
TQ_API int32_t tq_des3_set2key_enc(TQ_DES3_CTX* ctx, const uint8_t key[16]);
TQ_API int32_t tq_des3_set2key_dec(TQ_DES3_CTX* ctx, const uint8_t key[16]);
TQ_API int32_t tq_des3_set3key_enc(TQ_DES3_CTX* ctx, const uint8_t key[24]);
TQ_API int32_t tq_des3_set3key_dec(TQ_DES3_CTX* ctx, const uint8_t key[24]);

/* One block. Return 0. */
TQ_API int32_t tq_des_crypt_ecb(const TQ_DES_CTX* ctx, const uint8_t input[8], uint8_t output[8]);
TQ_API int32_t tq_des3_crypt_ecb(const TQ_DES3_CTX* ctx, const uint8_t input[8], uint8_t output[8]);

/* `mode` 1 encrypts, any other decrypts. `iv` ends up as the last ciphertext block, so that calls chain.
   Return 0, or -50, with nothing written, when `length` is negative or no multiple of 8. */
TQ_API int32_t tq_des_crypt_cbc(const TQ_DES_CTX* ctx, int32_t mode, int32_t length, uint8_t iv[8],
                                const uint8_t* input, uint8_t* output);
TQ_API int32_t tq_des3_crypt_cbc(const TQ_DES3_CTX* ctx, int32_t mode, int32_t length, uint8_t iv[8],
                                 const uint8_t* input, uint8_t* output);

TQ_END_C

#endif
