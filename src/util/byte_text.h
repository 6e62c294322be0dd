/* Memory and text routines that bear null pointers. Counts are bytes; every buffer belongs to the caller. */
#ifndef TQREADER_UTIL_BYTE_TEXT_H
#define TQREADER_UTIL_BYTE_TEXT_H

#include "util/api.h"

TQ_BEGIN_C

/* Difference a - b of the first characters (as unsigned bytes) that differ, 0 for equal texts, -1 when one is
 * null. */
TQ_API int32_t tq_strcmp(const char* a, const char* b);

/* 'a'..'z' to 'A'..'Z', every other value as it is. */
TQ_API int32_t my_toupper(int32_t character);

/* Writes `value` in a radix of 2 to 36, with upper-case letters, a '-' for negative values and a NUL at the
   end, and returns `dst`, which has room for 66 bytes. The value 0 gives the one character '0' and no NUL:
   pass a zeroed buffer. Another radix or a null `dst` writes nothing. */
TQ_API char* my_itoa(int64_t value, char* dst, int32_t radix);

/* For callers from outside: nothing in the library calls what follows. */

/* Copies `n` bytes between buffers that do not overlap and returns `dst`. Nothing happens when a pointer is
 * null. */
TQ_API void* tq_memcpy(void* dst, const void* src, uint32_t n);

/* Sets `n` bytes to `value` and returns `dst`. Nothing happens when `dst` is null. */
TQ_API void* tq_memset(void* dst, uint8_t value, uint32_t n);

/* Difference a - b of the first bytes (unsigned) that differ, 0 when all `n` are equal, -1 when a pointer is
   null. Its time depends on the data: not for MACs. */
TQ_API int32_t tq_memcmp(const void* a, const void* b, uint32_t n);

/* Length of a NUL-terminated text, 0 for null. */
TQ_API uint32_t tq_strlen(const char* s);

/* First occurrence of `needle`, or a static empty text, never null, when there is none; an empty or null
   needle is never found. Test the result by its first byte. */
TQ_API const char* tq_strstr(const char* haystack, const char* needle);

/* Copies at most `n` characters (a negative count is 0) and returns `dst`. The copy is always terminated:
   `dst` has room for n + 1 bytes. Nothing happens when a pointer is null. */
TQ_API char* tq_strncpy(char* dst, const char* src, int32_t n);

/* Decimal number at the start of a text, after spaces (no other blanks) and one optional sign; 0 when there
   is no digit or `s` is null. Values beyond 32 bits wrap around. */
TQ_API int32_t my_atoi(const char* s);

/* Cuts spaces and tabs off both ends, in place. Returns the first character kept, inside `s`; null for null.
 */
TQ_API char* my_trim(char* s);

TQ_END_C

#endif
