/* Validators of the application's texts: each trims spaces and tabs at both ends and copies what is left to
   `out` without a terminator, so callers pass zeroed buffers. */
#ifndef TQREADER_CORE_CONFIG_TEXT_CHECKS_H
#define TQREADER_CORE_CONFIG_TEXT_CHECKS_H

#include "core/config/session_config.h"
#include "util/api.h"

TQ_BEGIN_C

enum { TQ_SERIAL_TEXT_MAX = 64 }; /* longest serial-number text */

/* Exactly 20 ASCII letters and digits, else TQ_BAD_APPID. `out` has 20 bytes. */
TQ_API int32_t appid_check(const char* text, uint8_t* out);

/* At most 64 bytes, none above 0x80, else TQ_BAD_SERIAL_NUMBER; null or empty is fine and copies nothing. */
TQ_API int32_t SN_check(const char* text, char* out);

/* For callers from outside: nothing in the library calls what follows. */

/* At most `limit` bytes, none above 0x80, else TQ_OUT_OF_RANGE; null or empty is TQ_MISSING_CALL. */
TQ_API int32_t current_check(const char* text, char* out, uint32_t limit);

TQ_END_C

#endif
