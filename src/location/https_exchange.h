/* Carries one binary request to the location server and its binary answer back: as Base64 in JSON, by
   HTTP/1.1 POST over TLS 1.2 on a connection of its own. Whatever certificate the server shows is accepted,
   so this keeps out listeners but nobody who puts himself in between. The frame inside has its own cipher. */
#ifndef TQREADER_LOCATION_HTTPS_EXCHANGE_H
#define TQREADER_LOCATION_HTTPS_EXCHANGE_H

#include "core/result_code.h"
#include "location/scp_context.h"
#include "util/api.h"

TQ_BEGIN_C

/* Sends the request and writes the answer to `answer`, zeroed beforehand; the two may be the same buffer.
   Blocks for 30 seconds at most, connecting and the handshake included, and within them for 5 on each wait.
   Only the resolver cannot be interrupted: a name may take longer, and then the exchange fails when it is
   there. Returns the number of answer bytes, or TQ_FAILED. The response's body may have 1.7 * requestLength +
   256 bytes, and the sessionId in it 63. Threads may call this at the same time. */
TQ_API int32_t scp_socket_send_and_recv(const ScpContext* context, const uint8_t* request,
                                        uint32_t requestLength, uint8_t* answer, uint32_t capacity);

TQ_END_C

#endif
