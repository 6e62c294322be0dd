/* The passport's own exchanges with the decode server: 0x7201 opens the read and brings its token, 0x7202
   carries the files and brings the decoded result. Both have 4-byte length fields. */
#ifndef TQREADER_PASSPORT_PASSPORT_COMMANDS_H
#define TQREADER_PASSPORT_PASSPORT_COMMANDS_H

#include "core/config/session_config.h"
#include "passport/passport_session_record.h"
#include "util/api.h"

TQ_BEGIN_C

enum { TQ_EXCHANGE_7201 = 0, TQ_EXCHANGE_7202 = 1 };

/* Runs one exchange over the open connection: kind TQ_EXCHANGE_7201 writes the 16-byte `token`,
   TQ_EXCHANGE_7202 fills `result`. Returns 0 or more, TQ_REQUEST_NOT_BUILT, TQ_EXCHANGE_FAILED,
   TQ_RESPONSE_MALFORMED or the server's status. */
TQ_API int32_t passport_server_exchange(SessionConfig* ctx, const uint8_t* workKeys, info_data* result,
                                        int32_t kind, uint8_t* token, const PassportFileRecord* fileTable,
                                        uint32_t fileCount, const uint8_t* aaAnswer, uint32_t aaLength,
                                        const uint8_t* challenge, uint32_t challengeLength,
                                        const PassportTiming* timingPair);

/* Builds the 7201 request. Returns its length, or TQ_FAILED. */
TQ_API int32_t input_7201_cmd_group(SessionConfig* ctx, const uint8_t* workKeys, uint8_t* out,
                                    uint32_t capacity);

/* Reads the answer to 0x7201: the token, zeros behind a shorter one, goes to `token_out` of `capacity` bytes.
   Returns the number of token bytes, TQ_FAILED, or the server's status. */
TQ_API int32_t output_7201_cmd_analysis(const uint8_t* frame, uint32_t length, const uint8_t* workKeys,
                                        uint8_t* token_out, uint32_t capacity);

/* Builds the 7202 request: the files DG1 to DG16 and EF.SOD, the answer to INTERNAL AUTHENTICATE and its
   challenge, EF.COM, and the two times. Returns its length, or TQ_FAILED. */
TQ_API int32_t input_7202_cmd_group(const PassportFileRecord* table, uint32_t count, const uint8_t* workKeys,
                                    const uint8_t* aaAnswer, uint32_t aaLength, const uint8_t* challenge,
                                    uint32_t challengeLength, uint8_t* out, uint32_t capacity,
                                    const uint8_t* token, const PassportTiming* timingPair);

/* Reads the answer to 0x7202; the decoded bytes, flag byte first, go to `out`. Returns their number,
   TQ_FAILED, or the server's status. */
TQ_API int32_t output_7202_cmd_analysis(const uint8_t* frame, uint32_t length, const uint8_t* workKeys,
                                        uint8_t* out, uint32_t capacity);

/* The row of the file with this identifier, or -1. */
TQ_API int32_t get_dg_data_sub(const PassportFileRecord* table, uint32_t count, uint16_t fileId);

/* Writes each file's name and last status, e.g. "dg15_str:6A82;dg1_str:9000", NUL-terminated to `out` of
   TQ_STATUS_TEXT_SIZE bytes; no row is added once more than 245 characters are there, nor one that does not
   fit. Returns the length. */
TQ_API int32_t passport_file_status_text(const PassportFileRecord* table, uint32_t count, char* out);

TQ_END_C

#endif
