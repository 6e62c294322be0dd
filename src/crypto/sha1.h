/* SHA-1 (FIPS 180-4) with the context interface of RFC 3174. Contexts belong to the caller. */
#ifndef TQREADER_CRYPTO_SHA1_H
#define TQREADER_CRYPTO_SHA1_H

#include "util/api.h"

TQ_BEGIN_C

/* State codes of RFC 3174. */
enum {
  shaSuccess = 0,
  shaNull = 1,         /* a pointer is null */
  shaInputTooLong = 2, /* the message has 2^64 bits or more */
  shaStateError = 3    /* input after the digest was computed */
};

typedef struct {
  uint32_t Intermediate_Hash[5];
  uint32_t Length_Low; /* message length in bits */
  uint32_t Length_High;
  int16_t Message_Block_Index; /* bytes waiting in the block */
  uint8_t Message_Block[64];
  int32_t Computed;  /* the digest has been computed */
  int32_t Corrupted; /* the first of the codes above that went wrong, else 0 */
} TQSHA1Context;

TQ_API int32_t TQSHA1Reset(TQSHA1Context* ctx);

/* Absorbs `length` bytes. Returns 0 or a state code, which stays: a corrupted context takes no more input. */
TQ_API int32_t TQSHA1Input(TQSHA1Context* ctx, const uint8_t* data, size_t length);

/* Writes the 20-byte digest; the first call completes the message and wipes the block. Returns 0 or a state
 * code. */
TQ_API int32_t TQSHA1Result(TQSHA1Context* ctx, uint8_t digest[20]);

/* Inner steps, for a context whose block index is below 64: the padding of the last block or two, and the
   compression of the block, after which the index is 0. */
TQ_API void SHA1PadMessage(TQSHA1Context* ctx);
TQ_API void SHA1ProcessMessageBlock(TQSHA1Context* ctx);

/* Digest of `length` bytes in one call. Returns 20, or -1 when `capacity` is below 20, `digest` is null,
   `data` is null and `length` is not 0, or the message is too long. */
TQ_API int32_t TQSHA1Parse(const uint8_t* data, size_t length, uint8_t* digest, int32_t capacity);

TQ_END_C

#endif
