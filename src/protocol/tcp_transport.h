/* The one TCP connection to the decode server: opening it within a time limit, one request and one response
   at a time, and closing it, which is also how a running exchange is ended from another thread.

   A worker runs connect and exchanges; any thread may close. Waiting is done by the kernel. */
#ifndef TQREADER_PROTOCOL_TCP_TRANSPORT_H
#define TQREADER_PROTOCOL_TCP_TRANSPORT_H

#include "core/config/session_config.h"
#include "util/api.h"

TQ_BEGIN_C

/* Whether the length field of a frame has 2 or 4 bytes. */
enum { TQ_SHORT_FRAME = 0, TQ_LONG_FRAME = 1 };

/* Resolves `cfg->ip` (IPv4) and connects to `cfg->port` within 5000 ms, trying again while the server
   refuses. Returns the descriptor, or TQ_FAILED. A socket that an earlier connect left behind is released. */
TQ_API int32_t tq_socket_connect(const SessionConfig* cfg);

/* Closes the connection if there is one and makes every exchange that is under way end at once. */
TQ_API void tq_socket_close(void);

/* Sends one request and receives one response, each within 5000 ms; the end of the response is known from its
   length field. `request` and `response` may be the same buffer. Returns the number of bytes received, which
   may be more than the frame has, or TQ_EXCHANGE_FAILED. */
TQ_API int32_t tcp_send_and_recv(const SessionConfig* cfg, const uint8_t* request, uint32_t requestLength,
                                 uint8_t* response, uint32_t capacity, int32_t longForm);

/* Receives one response frame. `context` is not used. Returns its bytes, 0 when already aborted, what
 * the last receive gave when aborted meanwhile, or TQ_FAILED. */
TQ_API int32_t tq_socket_recv(void* context, uint8_t* buffer, uint32_t capacity, int32_t longForm);

/* Sends all bytes within 5000 ms. `context` is not used. Returns their number, 0 when already aborted,
 * what the last send gave when aborted meanwhile, or TQ_FAILED. */
TQ_API int32_t tq_socket_send(void* context, const uint8_t* bytes, uint32_t length);

TQ_END_C

#endif
