/* The relay between a read and the card, which only the application can reach: commands go out through the
   card callback with a serial number; answers, which carry it back, are judged by their status words (ISO/IEC
   7816-4). */
#ifndef TQREADER_CORE_SESSION_CARD_RELAY_H
#define TQREADER_CORE_SESSION_CARD_RELAY_H

#include "core/config/session_config.h"
#include "util/api.h"

TQ_BEGIN_C

/* Hands `length` command bytes to the application. Always returns 0: what the card callback returns is not
   looked at. A command that the bridge loses for lack of memory ends its read (lose_command). */
TQ_API int32_t tq_read_card_send(SessionConfig* cfg, const uint8_t* command, uint32_t length, uint8_t serial);

/* Judges an answer by its status word, a trailing zero byte of the reader allowed, and copies its data to
   `out`, which may be null when none are expected. Returns their number, TQ_NO_CARD_ANSWER, TQ_CARD_REFUSED,
   TQ_CARD_FAILED, or TQ_FAILED for any other status or data beyond `capacity`. */
TQ_API int32_t tq_read_card_anlysis(SessionConfig* cfg, const uint8_t* answer, uint32_t length, uint8_t* out,
                                    uint32_t capacity);

TQ_END_C

#endif
