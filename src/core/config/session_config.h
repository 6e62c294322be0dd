/* The one configuration and context record of the reader: who the application is, where the decode server is,
   how to read, and the four functions that lead back to the application. share_init validates and fills it,
   the registrations complete it, check_function_call is the gate that every read passes.

   A read works on a copy of the record taken when it starts, so the record may be configured anew at any
   time. All functions here belong on the application's own thread. */
#ifndef TQREADER_CORE_CONFIG_SESSION_CONFIG_H
#define TQREADER_CORE_CONFIG_SESSION_CONFIG_H

#include "core/config/records.h"
#include "core/result_code.h"
#include "util/api.h"

TQ_BEGIN_C

enum {
  TQ_APPID_LENGTH = 20,      /* letters and digits of an application id */
  TQ_DEVICE_ID_MAX = 68,     /* longest device id that fits a request */
  TQ_SERVER_NAME_SIZE = 128, /* room for the server name with its NUL */
  TQ_LAST_COMMAND_MAX = 32,  /* bytes kept of the last card command */
  TQ_STICK_CARD_ID_LENGTH = 16,
  TQ_PACKAGE_DIGEST_LENGTH = 32
};

/* Environments of the decode server. */
enum { TQ_ENVIRONMENT_A = 268, TQ_ENVIRONMENT_B = 52302, TQ_ENVIRONMENT_C = 26814 };

/* Which frame header the server commands carry. */
enum { TQ_ROUTE_IDENTITY_CARD = 0, TQ_ROUTE_ONE = 1, TQ_ROUTE_PASSPORT = 2 };

/* Sends one command of `length` bytes to the card; `serial` comes back with the answer. */
typedef int32_t (*tq_card_callback)(const uint8_t* apdu, uint32_t length, uint8_t serial, void* userData);
/* Shows the monitor record to the application and writes its answer (no terminator) to `out`; returns the
   answer's length, or -1. */
typedef int32_t (*tq_monitor_callback)(const monitor_param* param, char* out, uint32_t outSize);
/* The application's current time in milliseconds, 0 when it did not answer. */
typedef int64_t (*tq_timestamp_callback)(void);
/* Delivers the result. `info->data` belongs to the receiver, who gives it back with tq_mem_free. */
typedef void (*tq_result_callback)(info_data* info);

typedef struct SessionConfig {
  uint8_t appid[32];          /* 20 letters or digits, zero-padded */
  uint8_t readMode;           /* 1 if the mode given was 1, else 0: which decode commands are used */
  uint8_t decodeMode;         /* 0 or 1: size of the last decode exchange */
  uint8_t serverRoute;        /* TQ_ROUTE_ value of the running read */
  uint8_t readChunkSize;      /* most bytes asked for by one READ BINARY, 1 to 255 */
  char sn1[TQ_DEVICE_ID_MAX]; /* serial-number texts, zero-padded; the first is the device id */
  char sn2[TQ_DEVICE_ID_MAX];
  char sn3[TQ_DEVICE_ID_MAX];
  uint32_t envIdCode;         /* TQ_ENVIRONMENT_ value: chooses the server's key */
  uint8_t logLevel;           /* 0 to 2; 2 dumps commands, answers and frames */
  uint8_t frameFlag;          /* 0 or 1, sent with the first card-authentication command */
  uint8_t reqidVersion;       /* 0 or 1, sent with the server authentication */
  uint8_t* readBuffer;        /* NUL-terminated business id of the running read, or null; tq_mem_malloc */
  int32_t lastError;          /* last code recorded here, 0 after a good share_init */
  uint8_t queryInfo[3];       /* the three query-info parameters */
  uint8_t initDone;           /* 1 after a good share_init */
  uint8_t cardCallbackSet;    /* 1 when the card callback is registered */
  uint8_t monitorCallbackSet; /* 1 when the monitor callback is registered */
  uint8_t queryInfoPending;   /* 1 while the last query-info call has not succeeded */
  uint32_t lastStatusWord;    /* status of the last card answer */
  uint8_t lastCommand[TQ_LAST_COMMAND_MAX]; /* start of the last card command, cleared by a good answer */
  uint8_t lastCommandLength;
  uint8_t packageDigest[TQ_PACKAGE_DIGEST_LENGTH]; /* SM3 of the package name */
  uint8_t packageDigestSet;                        /* 1 when a package name was given */
  uint8_t terId;                                   /* terminal id */
  void* cardCallbackData;                          /* handed back to the card callback */
  tq_card_callback cardCallback;
  tq_monitor_callback monitorCallback;
  uint8_t authMode;             /* 0: full form of the authentication request; else the compact one */
  char ip[TQ_SERVER_NAME_SIZE]; /* decode-server name or address, zero-padded */
  uint16_t port;
  uint8_t stickCardId[TQ_STICK_CARD_ID_LENGTH]; /* stick-card id of the running read */
  uint32_t resultCallbackSet;                   /* 1 when the result callback is registered */
  tq_result_callback resultCallback;
  uint32_t timestampCallbackSet; /* 1 when the timestamp callback is registered */
  tq_timestamp_callback timestampCallback;
  uint8_t monitorTiming; /* not 0: the server wants card timings; from its authentication answer */
} SessionConfig;

/* Validates the application's parameters and fills the record. `mode` 1 or 2, `decodeMode` and `frameFlag` 0
   or 1, `logLevel` 0 to 2, `readChunkSize` 1 to 255, `port` below 65536, `ip` shorter than 128 bytes; of
   `terId` the low 8 bits are kept; serial numbers and `packageName` may be null or empty. Returns TQ_OK,
   TQ_BAD_APPID, TQ_BAD_SERIAL_NUMBER or TQ_OUT_OF_RANGE; the code is also kept in `lastError`. */
TQ_API int32_t share_init(SessionConfig* cfg, const char* appid, int32_t readChunkSize, int32_t decodeMode,
                          int32_t mode, int32_t frameFlag, int32_t logLevel, int32_t envIdCode,
                          const char* sn1, const char* sn2, const char* sn3, const char* packageName,
                          int32_t terId, const char* ip, int32_t port);

/* Stores the reqid version, 0 or 1; any other returns TQ_OUT_OF_RANGE and changes nothing. */
TQ_API int32_t share_set_reqid_version(SessionConfig* cfg, int32_t version);

/* Store a callback. A null function leaves it unregistered, records TQ_OUT_OF_RANGE and returns
 * TQ_MISSING_CALL. */
TQ_API int32_t share_register_card_callback(SessionConfig* cfg, tq_card_callback fn, void* userData);
TQ_API int32_t share_register_monitor_callback(SessionConfig* cfg, tq_monitor_callback fn);
TQ_API int32_t share_register_timestamp_callback(SessionConfig* cfg, tq_timestamp_callback fn);
TQ_API int32_t share_register_result_callback(SessionConfig* cfg, tq_result_callback fn);

/* TQ_OK when a read may start; else the recorded code, or TQ_MISSING_CALL when none is recorded. */
TQ_API int32_t check_function_call(SessionConfig* cfg);

/* For callers from outside: nothing in the library calls what follows. */

/* Sets the query-info parameters: a 0 to 2, b and c 0 or 1. A failure is recorded and keeps every read from
   starting until a call succeeds. Returns TQ_OK, TQ_MISSING_CALL before share_init, TQ_OUT_OF_RANGE or a
   TQ_QUERY_INFO_ code. */
TQ_API int32_t share_setQueryInfoParameterWithCardInfoState(SessionConfig* cfg, uint32_t a, uint32_t b,
                                                            uint32_t c);

/* The version as constant text. */
TQ_API const char* share_getVersion(void);

/* Writes the application's current time as decimal text with its NUL (at most 21 bytes); returns its length,
   or TQ_FAILED without a registered callback. */
TQ_API int32_t getNowTimestemp_String(SessionConfig* cfg, char* out);

TQ_END_C

#endif
