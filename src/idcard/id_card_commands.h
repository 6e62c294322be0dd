/* The fixed commands of the identity card: ISO/IEC 14443-3 type B wake-up, ISO/IEC 7816-4 SELECT and READ
   BINARY. All return what tq_read_card_send does. */
#ifndef TQREADER_IDCARD_ID_CARD_COMMANDS_H
#define TQREADER_IDCARD_ID_CARD_COMMANDS_H

#include "core/config/session_config.h"
#include "util/api.h"

TQ_BEGIN_C

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
