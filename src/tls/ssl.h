/* The TLS client: TLS 1.2 (RFC 5246) with RSA key transport, in the manner of the common SSL library's calls.
 *
 * Inside this library only; nothing here is exported. Any certificate is accepted: what is taken from it is
 * the server's RSA key. One object belongs to one thread at a time. No call raises SIGPIPE. */
#ifndef TQREADER_TLS_SSL_H
#define TQREADER_TLS_SSL_H

#include "util/api.h"

TQ_BEGIN_C

typedef struct tq_ssl SSL;
typedef struct tq_ssl_ctx SSL_CTX;
typedef struct tq_ssl_method SSL_METHOD;

/* Nothing needs to be set up; always 1. */
int SSL_library_init(void);

/* The one method there is: a TLS 1.2 client. */
const SSL_METHOD* SSLv23_client_method(void);

/* A context, given back with SSL_CTX_free; it need not outlive its connections. Null for a null method and
   when there is no memory. */
SSL_CTX* SSL_CTX_new(const SSL_METHOD* method);
void SSL_CTX_free(SSL_CTX* ctx);

/* A connection, given back with SSL_free, which wipes it and leaves the socket open. Null for a null context
   and when there is no memory. */
SSL* SSL_new(SSL_CTX* ctx);
void SSL_free(SSL* ssl);

/* Attaches a connected stream socket, which stays the caller's. Its SO_RCVTIMEO and SO_SNDTIMEO hold for each
   wait, also when it is non-blocking. 1, or 0 for a bad argument. */
int SSL_set_fd(SSL* ssl, int fd);

/* The name for the server_name extension (RFC 6066 section 3). An address literal, an empty name and null
   mean that none is sent. 1, or 0 when the name cannot stand in it (above 255 characters, or not printable
   ASCII). */
int SSL_set_tlsext_host_name(SSL* ssl, const char* name);

/* Everything on this connection together may take `milliseconds` from now on, by the monotonic clock and
   beside the socket's own time-outs; a negative number lifts the limit. */
void SSL_set_time_limit(SSL* ssl, int64_t milliseconds);

/* The handshake. 1, or -1; after a failure the connection is of no more use. */
int SSL_connect(SSL* ssl);

/* Writes all `length` bytes, in as many records as it takes. Returns `length`, or -1. */
int SSL_write(SSL* ssl, const void* bytes, int length);

/* Up to `capacity` bytes of the peer, as soon as there are any. Returns how many; 0 when the peer has ended
   the connection with close_notify; -1 on an error, an end without close_notify among them. */
int SSL_read(SSL* ssl, void* out, int capacity);

/* Sends close_notify. Returns 1 when the peer's has been seen, 0 when not; a second call then waits for it,
   and drops what comes before it. Takes 5 seconds at most. -1 on an error. */
int SSL_shutdown(SSL* ssl);

TQ_END_C

#endif
