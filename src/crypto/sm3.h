/* SM3 (GB/T 32905-2016) and HMAC-SM3 (RFC 2104 with a block of 64 bytes).
   A context belongs to the caller and may be copied to continue a hash in two ways. The one-shot routines
   wipe the context they use; wipe your own when the data was secret. Lengths below 1 count as 0. No pointer
   may be null, except that of data or of a key of length 0. */
#ifndef TQREADER_CRYPTO_SM3_H
#define TQREADER_CRYPTO_SM3_H

#include "util/api.h"

TQ_BEGIN_C

typedef struct {
  uint32_t total[2];  /* bytes so far: low word, wrap-arounds of the low word */
  uint32_t state[8];  /* chaining value */
  uint8_t buffer[64]; /* the block being filled */
  uint8_t ipad[64];   /* HMAC only: the key XOR 0x36 repeated */
  uint8_t opad[64];   /* HMAC only: the key XOR 0x5C repeated */
} TQ_SM3_CTX;

TQ_API void TQ_sm3_starts(TQ_SM3_CTX* ctx);
TQ_API void TQ_sm3_update(TQ_SM3_CTX* ctx, const uint8_t* data, int32_t length);
TQ_API void TQ_sm3_finish(TQ_SM3_CTX* ctx, uint8_t digest[32]);
TQ_API void TQ_sm3(const uint8_t* data, int32_t length, uint8_t digest[32]);

/* A key of 65 bytes or more is replaced by its SM3 digest. */
TQ_API void TQ_sm3_hmac_starts(TQ_SM3_CTX* ctx, const uint8_t* key, int32_t key_length);
TQ_API void TQ_sm3_hmac_update(TQ_SM3_CTX* ctx, const uint8_t* data, int32_t length);
TQ_API void TQ_sm3_hmac_finish(TQ_SM3_CTX* ctx, uint8_t mac[32]);
TQ_API void TQ_sm3_hmac(const uint8_t* key, int32_t key_length, const uint8_t* data, int32_t length,
                        uint8_t mac[32]);

/* The same under the names of the location service. */
TQ_API void scp_sm3_starts(TQ_SM3_CTX* ctx);
TQ_API void scp_sm3_update(TQ_SM3_CTX* ctx, const uint8_t* data, int32_t length);
TQ_API void scp_sm3_finish(TQ_SM3_CTX* ctx, uint8_t digest[32]);
TQ_API void scp_sm3(const uint8_t* data, int32_t length, uint8_t digest[32]);
TQ_API void scp_sm3_hmac_starts(TQ_SM3_CTX* ctx, const uint8_t* key, int32_t key_length);
TQ_API void scp_sm3_hmac_update(TQ_SM3_CTX* ctx, const uint8_t* data, int32_t length);
TQ_API void scp_sm3_hmac_finish(TQ_SM3_CTX* ctx, uint8_t mac[32]);
TQ_API void scp_sm3_hmac(const uint8_t* key, int32_t key_length, const uint8_t* data, int32_t length,
                         uint8_t mac[32]);

/* Digest of a file. Returns 0, or 1 with `digest` untouched when the file cannot be opened or read. */
TQ_API int32_t scp_sm3_file(const char* path, uint8_t digest[32]);

TQ_END_C

#endif
