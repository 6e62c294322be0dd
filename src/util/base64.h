/* Base64 with the alphabet and padding of RFC 4648 section 4, without line breaks. */
#ifndef TQREADER_UTIL_BASE64_H
#define TQREADER_UTIL_BASE64_H

#include "util/api.h"

TQ_BEGIN_C

/* Writes 4 characters for every 3 of `n` bytes, the last group completed with '=', without a NUL. Returns the
   number of characters written, 0 when `n` is below 1. After each group there must be room for one more, or
   encoding stops there: a `capacity` below 4 gives nothing, and one that holds the text but not 4 characters
   beyond it gives 'A' where '=' belongs. Be generous: 4 * (n / 3) + 8. */
TQ_API int32_t BASE64encode(const uint8_t* src, int32_t n, char* dst, int32_t capacity);

/* Decodes groups of 4 characters up to `n`, or up to a '=' in the third or fourth place, or until `capacity`
   bytes are written, and returns their number; 0 when `n` is below 1. Nothing is validated: a NUL counts as
   all ones, any other character outside the alphabet as zero. `src` is NUL-terminated when `n` is no multiple
   of 4: the last group then reads on, to the first NUL at most. `dst` may be the text itself. */
TQ_API int32_t BASE64decode(const char* src, int32_t n, uint8_t* dst, int32_t capacity);

/* The same two under the names of the location service. */
TQ_API int32_t scpBASE64encode(const uint8_t* src, int32_t n, char* dst, int32_t capacity);
TQ_API int32_t scpBASE64decode(const char* src, int32_t n, uint8_t* dst, int32_t capacity);

TQ_END_C

#endif
