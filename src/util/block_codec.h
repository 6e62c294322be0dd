/* The library's light-weight block encoding: it keeps texts from being readable in the binary, it protects
   nothing. Bytes are padded to whole 8-byte blocks, the order of the blocks is reversed, and each block is
   combined (XOR) with the encoded block before it, the first with the key. */
#ifndef TQREADER_UTIL_BLOCK_CODEC_H
#define TQREADER_UTIL_BLOCK_CODEC_H

#include "util/api.h"

TQ_BEGIN_C

/* Encodes `n` bytes into n + 8 - n % 8 (1 to 8 bytes of padding) and returns that length. Returns -1 for a
   null pointer (`src` may be null when `n` is 0), a length beyond a signed 32-bit number or when there is no
   memory. `dst` may be `src`. */
TQ_API int32_t tq1_encode(const uint8_t* src, uint32_t n, const uint8_t key[8], uint8_t* dst);

/* Decodes `n` bytes and returns the length without the padding, n - 255 to n. Returns -1, with nothing
   written, when `n` is no positive multiple of 8, the padding is longer than the text, a pointer is null or
   there is no memory. `dst` may be `src`. */
TQ_API int32_t tq1_decode(const uint8_t* src, uint32_t n, const uint8_t key[8], uint8_t* dst);

/* For callers from outside: nothing in the library calls what follows. */

/* Second names of the two. */
TQ_API int32_t tq2_encode(const uint8_t* src, uint32_t n, const uint8_t key[8], uint8_t* dst);
TQ_API int32_t tq2_decode(const uint8_t* src, uint32_t n, const uint8_t key[8], uint8_t* dst);

TQ_END_C

#endif
