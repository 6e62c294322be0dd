/* A small scanner for flat JSON texts with known keys. It understands neither escapes nor nesting. */
#ifndef TQREADER_PROTOCOL_JSON_SCAN_H
#define TQREADER_PROTOCOL_JSON_SCAN_H

#include "core/result_code.h"
#include "util/api.h"

TQ_BEGIN_C

/* TQ_OK when the text starts with "{" and ends with "}", else TQ_FAILED. */
TQ_API int32_t json_check(const char* text);

/* Copies the value of `key` to `out` with a NUL: a quoted value without its quotes, a braced one up to and
   with the first closing brace. Only the first place where the key's letters stand is looked at; it must be
   quoted and followed by a colon and the value without spaces. Returns TQ_OK, or TQ_FAILED with `out` empty.
   `out` needs room for the text. */
TQ_API int32_t json_get_value(const char* text, const char* key, char* out);

/* TQ_OK when the two texts are equal, else TQ_FAILED. */
TQ_API int32_t json_check_value(const char* a, const char* b);

/* The same for the location server's texts, whose values are quoted: a braced one is refused. */
TQ_API int32_t scp_json_check(const char* text);
TQ_API int32_t scp_json_get_value(const char* text, const char* key, char* out);
TQ_API int32_t scp_json_check_value(const char* a, const char* b);

TQ_END_C

#endif
