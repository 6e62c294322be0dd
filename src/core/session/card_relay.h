/* The relay between a read and the card, which only the application can reach: commands go out through the
   card callback with a serial number, answers come back through id_card_handler. Also the fixed commands of
   the identity card (ISO/IEC 14443-3 type B wake-up, ISO/IEC 7816-4 SELECT and READ BINARY). */
#ifndef TQREADER_IDCARD_CARD_RELAY_H
#define TQREADER_IDCARD_CARD_RELAY_H

#include "core/config/session_config.h"
#include "util/api.h"

TQ_BEGIN_C

/* Hands `length` command bytes to the application. Always returns 0; a failing application is only seen as a
   missing answer. */
TQ_API int32_t tq_read_card_send(SessionConfig* cfg, const uint8_t* command, uint32_t length, uint8_t serial);

/* Judges an answer by its status word, a trailing zero byte of the reader allowed, and copies its data to
   `out`. Returns their number, TQ_NO_CARD_ANSWER, TQ_CARD_REFUSED, TQ_CARD_FAILED, or TQ_FAILED for any other
   status or data beyond `capacity`. */
TQ_API int32_t tq_read_card_anlysis(SessionConfig* cfg, const uint8_t* answer, uint32_t length, uint8_t* out,
                                    uint32_t capacity);

/* Takes the application's answer to the command with this serial number and wakes the read that waits for it.
   Status -1 and lengths outside 1 to 300 count as a missing answer. Never blocks; harmless when no read runs.
 */
TQ_API void id_card_handler(SessionConfig* cfg, const uint8_t* data, uint32_t length, uint8_t serial,
                            int32_t status);

/* Waking and selecting the card, serial = step: 0 REQB, 1 ATTRIB, 2 SELECT 6002, 3 and more READ of the 32
   bytes of management data. */
TQ_API int32_t id_card_find_card(SessionConfig* cfg, uint32_t step);

/* SELECT of file 6011 (which = 0), 6012 (1) or 6013 (2 and more). */
TQ_API int32_t id_card_select_file(SessionConfig* cfg, uint32_t which, uint8_t serial);

/* READ BINARY at `offset` of a file of `total` bytes, at most `readChunkSize` of them. */
TQ_API int32_t id_card_read_file(SessionConfig* cfg, uint32_t offset, uint32_t total, uint8_t serial);

/* GET CHALLENGE of 8 bytes. */
TQ_API int32_t id_card_auth_get_rand(SessionConfig* cfg, uint8_t serial);

TQ_END_C

#endif
