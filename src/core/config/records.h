/* The two records that reads hand to the application's side: the result and the monitor record. */
#ifndef TQREADER_CORE_CONFIG_RECORDS_H
#define TQREADER_CORE_CONFIG_RECORDS_H

#include "util/api.h"

/* What the `data` of a result is. */
enum TqResultFlag {
  TQ_RESULT_JSON = 1,  /* NUL-terminated JSON text */
  TQ_RESULT_BYTES = 2, /* `length` raw bytes; the application receives them as hex text */
  TQ_RESULT_TEXT = 3   /* NUL-terminated plain text */
};

/* The result of one read. */
typedef struct info_data {
  int32_t code;   /* 0 or positive = success, negative = result code */
  int32_t flag;   /* TqResultFlag, 0 when there is no data */
  int32_t length; /* bytes of `data` when it is binary */
  uint8_t* data;  /* block of tq_mem_malloc owned by whoever receives the record; may be null */
} info_data;

/* The monitor record of one read. The texts are borrowed for the duration of the call that gets the record.
 */
typedef struct monitor_param {
  const char* reqid;       /* business id given by the decode server */
  int32_t result_code;     /* final result of the read */
  int32_t decode_times;    /* duration of the read, milliseconds */
  int32_t time_delay;      /* duration of the authentication exchange, milliseconds */
  uint32_t nfc_err_code;   /* status of the last card answer */
  const char* nfc_err_cmd; /* last unanswered or refused card command, hex text */
  uint8_t card_type;       /* 0 identity card, 1 passport, 2 route 1 */
  const char* device_id;   /* configured serial number */
  const char* appid;       /* configured application id */
  const char* sod_file;    /* text about the passport's security object; empty for identity cards */
  char stickCard_id[33];   /* 16 bytes as hex text */
} monitor_param;

#endif
