/* The first exchange of every read, command 0x7500: it opens the connection, shows the server who the
   application is and settles the work key of all later commands. The request carries a fresh key wrapped
   under the environment's key; the answer brings the session's key, the business id and a new stick-card id.

   A work key block has 32 bytes: the SM4 key and the CBC vector, 16 bytes each. */
#ifndef TQREADER_PROTOCOL_SERVER_AUTHENTICATION_H
#define TQREADER_PROTOCOL_SERVER_AUTHENTICATION_H

#include "core/config/session_config.h"
#include "util/api.h"

TQ_BEGIN_C

/* Room that the 7500 request needs, for its scratch and for its frame. */
enum { TQ_AUTHENTICATION_BUFFER = 512 };

/* Connects and authenticates. Fills the 32-byte `workKey`, stores the duration of the exchange in
   milliseconds in `delay`, replaces the 16-byte `stickCardId`, and keeps business id (`readBuffer`) and
   `monitorTiming` in `cfg`. Returns TQ_OK with the connection open; else closed with TQ_CONNECT_FAILED,
   TQ_REQUEST_NOT_BUILT, TQ_EXCHANGE_FAILED, TQ_RESPONSE_MALFORMED or the server's status. */
TQ_API int32_t server_authentication(SessionConfig* cfg, uint8_t* workKey, uint32_t* delay, int32_t unused,
                                     uint8_t* stickCardId);

/* Builds the 7500 request in `out` and fills `workKey` with a fresh key and its vector. `scratch` has 512
   bytes. Returns the frame length, or TQ_FAILED. */
TQ_API int32_t input_7500_group(SessionConfig* cfg, uint8_t* scratch, uint8_t* workKey,
                                const uint8_t* stickCardId, uint8_t* out, uint32_t capacity);

/* Reads the answer to 0x7500 (or 0x7100): the session key goes to the first half of `workKey`, the new
   stick-card id to `stickCardId`, business id and timing switch to `cfg`. Returns TQ_OK, TQ_FAILED, or the
   server's status; in the compact form the value that the answer repeats. */
TQ_API int32_t output_7100_and_7500_analysis(SessionConfig* cfg, const uint8_t* frame, uint32_t frameLength,
                                             uint32_t command, uint8_t* workKey, uint8_t* stickCardId);

TQ_END_C

#endif
