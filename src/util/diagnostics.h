/* Diagnostics on standard output. Lines of several threads may interleave; nothing is shared between calls.
 */
#ifndef TQREADER_UTIL_DIAGNOSTICS_H
#define TQREADER_UTIL_DIAGNOSTICS_H

#include "util/api.h"

TQ_BEGIN_C

/* printf to standard output, cut after 1023 characters. */
TQ_API void tq_printf(const char* format, ...) __attribute__((format(printf, 1, 2)));

/* The label (cut after 1023 characters), `n` bytes as upper-case hexadecimal digits, a line feed. */
TQ_API void print_hex(const char* label, const uint8_t* bytes, uint32_t n);

/* The same for the location service, with the label in full. */
TQ_API void scp_print_hex(const char* label, const uint8_t* bytes, uint32_t n);

TQ_END_C

#endif
