/* How long a short exchange with a server takes, over plain TCP and IPv4. */
#ifndef TQREADER_PROBE_LATENCY_PROBE_H
#define TQREADER_PROBE_LATENCY_PROBE_H

#include "core/result_code.h"
#include "util/api.h"

TQ_BEGIN_C

/* Connects, sends the greeting `count` times (1 to 5; any other count is 5), waits each time for any answer,
   and returns the average of the times in milliseconds. Otherwise TQ_PROBE_CONNECT_FAILED or TQ_PROBE_FAILED.
   Sending, receiving and connecting may take 5 seconds each; resolving a name takes what the system needs.
   The low 16 bits of `port` count. */
TQ_API int32_t tq_check_socket_info(int32_t count, const char* host, uint32_t port);

/* Returns a connected descriptor, -1 for no such name or no socket, -2 when the connection failed. */
TQ_API int32_t checkTools_socket_connect(const char* host, uint32_t port);

/* One send or receive and its result. A peer that has gone is a failure, never a signal. */
TQ_API int32_t checkTools_socket_send(int32_t fd, const void* buffer, uint32_t length);
TQ_API int32_t checkTools_socket_recv(int32_t fd, void* buffer, uint32_t length);

TQ_API void checkTools_socket_close(int32_t fd);

TQ_END_C

#endif
