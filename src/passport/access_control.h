/* Basic Access Control (ICAO Doc 9303-11 section 4.3): the keys that the machine-readable zone opens a chip
   with, the derivation that they share with the session keys, and the commands of the mutual authentication.
   Keys are 16 bytes for two-key triple DES, with odd parity. */
#ifndef TQREADER_PASSPORT_ACCESS_CONTROL_H
#define TQREADER_PASSPORT_ACCESS_CONTROL_H

#include "core/config/session_config.h"
#include "util/api.h"

TQ_BEGIN_C

enum { TQ_E_IFD_LENGTH = 32, TQ_RETAIL_MAC_LENGTH = 8 };

/* Derives the encryption and the MAC key from document number, date of birth and date of expiry, normalised
   and NUL-terminated. Returns TQ_OK or TQ_FAILED. */
TQ_API int32_t create_bassis_key(const char* number, const char* birth, const char* expiry, uint8_t* kenc_out,
                                 uint8_t* kmac_out);

/* Derives the encryption and the MAC key from a 16-byte seed (ICAO Doc 9303-11 section 9.7.1, counters 1 and
   2). Returns TQ_OK or TQ_FAILED. */
TQ_API int32_t create_key_share(const uint8_t* seed16, uint8_t* kenc_out, uint8_t* kmac_out);

/* The three commands before secure messaging: SELECT of the passport application, GET CHALLENGE, EXTERNAL
   AUTHENTICATE with 32 bytes of cryptogram and 8 of MAC. `next_step` comes back with the answer. They return
   what tq_read_card_send does. */
TQ_API int32_t passport_find_card(SessionConfig* ctx, uint8_t next_step);
TQ_API int32_t passport_rand_number_IC(SessionConfig* ctx, uint8_t next_step);
TQ_API int32_t passport_external_auth(SessionConfig* ctx, const uint8_t* e_ifd32, const uint8_t* m_ifd8,
                                      uint8_t next_step);

TQ_END_C

#endif
