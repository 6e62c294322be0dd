/* Secure messaging of ICAO Doc 9303-11 section 9.8 with two-key triple DES and the retail MAC (ISO/IEC
   9797-1, algorithm 3, padding method 2). `ksenc` and `ksmac` are 16-byte session keys; `ssc` is the 8-byte
   big-endian send sequence counter. Protect and unprotect advance it by one, in place, right before they
   compute the MAC: it stays advanced when the MAC is wrong or `out` too small, and does not move for a null
   pointer, a command that cannot be protected or an answer that is malformed. No `out` may be null. */
#ifndef TQREADER_PASSPORT_SECURE_MESSAGING_H
#define TQREADER_PASSPORT_SECURE_MESSAGING_H

#include "core/result_code.h"
#include "util/api.h"

TQ_BEGIN_C

/* Room that callers give for a protected command. */
enum { TQ_PROTECTED_COMMAND_MAX = 64 };

/* Protects a plain command of `command_len` bytes. From 7 bytes on, everything behind the fifth byte is its
   data; with `with_le` its last byte is also the expected length, except that INTERNAL AUTHENTICATE with 8
   bytes expects 00. Returns the length of the protected command in `out`, which may be `command`, or
   TQ_FAILED: below 4 bytes, for more data than a one-byte Lc can tell of, or beyond `out_cap`. */
TQ_API int32_t RP_protect_apdu(const uint8_t* command, uint32_t command_len, const uint8_t* ksenc,
                               const uint8_t* ksmac, uint8_t* ssc, int32_t with_le, uint8_t* out,
                               uint32_t out_cap);

/* Checks and opens a protected answer, given without its status word. Returns the number of data bytes copied
   to `out`, at most `out_cap` and possibly 0, or TQ_FAILED; then `out`, which may be `answer`, is untouched.
 */
TQ_API int32_t RP_unprotect_apdu(const uint8_t* answer, uint32_t answer_len, const uint8_t* ksenc,
                                 const uint8_t* ksmac, uint8_t* ssc, uint8_t* out, uint32_t out_cap);

/* Writes `in` with the byte 80 and zeros behind it, up to the next multiple of 8 (always at least one byte),
   to `out`, which may be `in`. Returns the padded length, or TQ_FAILED for a null pointer or when that length
   is beyond INT32_MAX. */
TQ_API int32_t RP_doPadding(const uint8_t* in, uint32_t len, uint8_t* out);

/* Retail MAC over the whole 8-byte blocks of data that are already padded; `out_len` bytes of it, at most 8,
   are written. Returns 0, or a negative code. */
TQ_API int32_t create_message_auth_code(const uint8_t* data, uint32_t len, const uint8_t* kmac16,
                                        uint8_t* out, uint32_t out_len);

/* Writes the counter after `ssc_in` to `ssc_out`, which may be the same. Returns TQ_OK, or TQ_FAILED for a
   null pointer. */
TQ_API int32_t RP_update_SSC(const uint8_t* ssc_in, uint8_t* ssc_out);

TQ_END_C

#endif
