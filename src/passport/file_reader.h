/* Reading the elementary files of a passport under secure messaging: SELECT by file identifier, READ BINARY
   of the first four bytes, which tell the file's size, then of the rest in chunks of at most `readChunkSize`
   bytes. Each command goes out through the card relay; its answer is handled when it comes. */
#ifndef TQREADER_PASSPORT_FILE_READER_H
#define TQREADER_PASSPORT_FILE_READER_H

#include "core/config/session_config.h"
#include "passport/passport_session_record.h"
#include "util/api.h"

TQ_BEGIN_C

/* Sends the protected SELECT of a file. `next_step` comes back with the answer. Returns what
   tq_read_card_send does, or TQ_FAILED when it could not be protected and was not sent. */
TQ_API int32_t passport_select_file(SessionConfig* ctx, uint16_t fileId, uint8_t next_step,
                                    const uint8_t* ksenc, const uint8_t* ksmac, uint8_t* ssc,
                                    int32_t with_le);

/* Protects and sends any plain command; returns as passport_select_file. */
TQ_API int32_t passport_read_file(SessionConfig* ctx, const uint8_t* command, uint32_t command_len,
                                  uint8_t next_step, const uint8_t* ksenc, const uint8_t* ksmac, uint8_t* ssc,
                                  int32_t with_le);

/* Judges an answer by its status word and opens it. Returns the number of plain bytes in `out`, the code of
   tq_read_card_anlysis, or TQ_CARD_FAILED when it cannot be opened. */
TQ_API int32_t passport_file_data_anlysis(SessionConfig* ctx, const uint8_t* answer, uint32_t answer_len,
                                          const uint8_t* ksenc, const uint8_t* ksmac, uint8_t* ssc,
                                          uint8_t* out, uint32_t out_cap);

/* Handles the answer to a READ BINARY of `fileId`, the first `answer_len` bytes of session->answer, and keeps
   its data in the table of `*count` rows (room for TQ_PASSPORT_FILES_MAX). Returns 1 when the next READ
   BINARY has been sent with `step`, 0 when the file is complete, or a negative code. */
TQ_API int32_t passport_file_read_next(SessionConfig* ctx, uint32_t answer_len, uint16_t fileId, uint8_t step,
                                       PassportSession* session, PassportFileRecord* table, uint32_t* count);

TQ_END_C

#endif
