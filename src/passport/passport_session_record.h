/* What passport reads keep: their files, their times, and their place in secure messaging. */
#ifndef TQREADER_PASSPORT_PASSPORT_SESSION_RECORD_H
#define TQREADER_PASSPORT_PASSPORT_SESSION_RECORD_H

#include "util/api.h"

enum {
  TQ_PASSPORT_FILES_MAX = 24, /* rows of the file table */
  TQ_DATA_GROUPS_MAX = 96,    /* identifiers in the list of data groups */
  TQ_CARD_ANSWER_MAX = 300,   /* bytes of one answer of the chip */
  TQ_PASSPORT_TOKEN_LENGTH = 16,
  TQ_AA_CHALLENGE_LENGTH = 8,
  TQ_STATUS_TEXT_SIZE = 256
};

/* Identifiers of the elementary files (ICAO Doc 9303-10); the data groups are 01 01 to 01 10. */
enum {
  TQ_EF_CARD_ACCESS = 0x011C, /* of the master file; what a chip offers beside Basic Access Control */
  TQ_EF_DG1 = 0x0101,
  TQ_EF_DG2 = 0x0102,
  TQ_EF_DG11 = 0x010B,
  TQ_EF_DG15 = 0x010F,
  TQ_EF_DG16 = 0x0110,
  TQ_EF_SOD = 0x011D,
  TQ_EF_COM = 0x011E
};

/* One file as read so far. */
typedef struct PassportFileRecord {
  uint8_t* data;     /* block of tq_mem_malloc of exactly the file's size, or null */
  uint32_t received; /* bytes stored in `data` */
  uint16_t fileId;
  uint32_t status;    /* status of the last answer for this file */
  uint32_t remaining; /* bytes of the file behind the first chunk */
  uint8_t firstChunk; /* bytes of the first chunk */
} PassportFileRecord;

/* Times on the application's clock in milliseconds, taken when the server wants them. */
typedef struct PassportTiming {
  uint32_t bacTime;  /* exchanges of SELECT application and GET CHALLENGE, averaged */
  uint32_t readTime; /* reading EF.COM, EF.SOD, DG1 and DG2 */
  uint32_t bacCount; /* timed exchanges that took any time */
  int64_t startTime;
  int64_t endTime;
  char statusText[TQ_STATUS_TEXT_SIZE]; /* per-file status, for the monitor record */
} PassportTiming;

/* What a caller of passport_file_read_next keeps of its read. */
typedef struct PassportSession {
  uint8_t ksenc[16]; /* session keys */
  uint8_t ksmac[16];
  uint8_t ssc[8];                     /* send sequence counter */
  uint8_t answer[TQ_CARD_ANSWER_MAX]; /* the chip's answer that is being handled */
} PassportSession;

#endif
