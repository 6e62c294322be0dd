/* Bytes as hexadecimal text, upper case, and back. */
#ifndef TQREADER_UTIL_HEX_H
#define TQREADER_UTIL_HEX_H

#include "util/api.h"

TQ_BEGIN_C

/* Turns each pair of characters of the NUL-terminated `hex` into one byte and returns half the text's length,
   rounded down. `dst` has room for half the length rounded up: the last character of an odd text is paired
   with the NUL and its byte is written too, but not counted. Letters may be of either case. Nothing is
   validated: other characters give bytes without meaning. Null gives 0. `dst` may be the text itself. */
TQ_API uint32_t hexStringToBytes(const char* hex, uint8_t* dst);

/* Writes the 2n upper-case digits of `n` bytes, without a NUL, and returns 2n: pass a zeroed buffer of 2n + 1
   bytes. Null gives 0. */
TQ_API uint32_t bytesToHexString(const uint8_t* src, uint32_t n, char* dst);

/* The same two under the names of the location service. */
TQ_API uint32_t scpHexStringToBytes(const char* hex, uint8_t* dst);
TQ_API uint32_t scpBytesToHexString(const uint8_t* src, uint32_t n, char* dst);

TQ_END_C

#endif
