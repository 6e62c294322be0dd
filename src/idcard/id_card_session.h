/* One read of a resident identity card, from its start to the result callback, on a worker thread of its own.
 */
#ifndef TQREADER_IDCARD_ID_CARD_SESSION_H
#define TQREADER_IDCARD_ID_CARD_SESSION_H

#include "core/config/session_config.h"
#include "util/api.h"

TQ_BEGIN_C

/* Starts a read with a copy of `cfg` and of the 16-byte stick-card id, and returns at once. A read that is
   still running is superseded: it ends without a result before the new one begins. Returns TQ_OK, the code of
   check_function_call, or TQ_NO_THREAD. The outcome reaches the result callback. */
TQ_API int32_t id_card_decode(SessionConfig* cfg, const uint8_t* stickCardId);

/* Takes the application's answer to the command with this serial number and wakes the read that waits for it.
   Status -1 and lengths outside 1 to 300 count as a missing answer. Never blocks; harmless when no read runs.
 */
TQ_API void id_card_handler(SessionConfig* cfg, const uint8_t* data, uint32_t length, uint8_t serial,
                            int32_t status);

/* Cancels the running read: a server exchange ends at once; a read that waits for a card answer ends once it
 * got one. */
TQ_API void id_card_cancel(void);

TQ_END_C

#endif
