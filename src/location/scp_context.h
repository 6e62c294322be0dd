/* The record of the location service: who asks, about which phone, and where. One for each thread that asks.
 */
#ifndef TQREADER_LOCATION_SCP_CONTEXT_H
#define TQREADER_LOCATION_SCP_CONTEXT_H

#include "util/api.h"

TQ_BEGIN_C

enum {
  TQ_SCP_APPID_LENGTH = 20,
  TQ_SCP_NAME_MAX = 64, /* longest name of a maker or a model */
  TQ_SCP_HOST_MAX = 127
};

/* The application's current time in milliseconds. */
typedef int64_t (*scp_time_source)(void);

typedef struct ScpContext {
  char appid[32];        /* 20 characters, zero-padded */
  uint32_t type;         /* of the request; its low byte is sent */
  char manufacturer[68]; /* of the phone, zero-padded */
  char model[68];        /* market name of the phone, zero-padded */
  uint16_t initialised;  /* 1 after a successful scp_init */
  uint16_t timeSourceSet;
  int32_t lastError; /* of the last failed set-up call, 0 otherwise */
  uint32_t logLevel; /* 0 to 2; 2 dumps request and answer to standard output */
  int32_t envIdCode; /* TQ_ENVIRONMENT_ value: chooses the server's key */
  char host[128];    /* name or IPv4 address of the server */
  uint32_t port;
  scp_time_source timeSource;
} ScpContext;

TQ_END_C

#endif
