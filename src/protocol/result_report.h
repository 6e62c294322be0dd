/* Turning the server's decoded data into the result that the application receives. The `data` of a filled
   record is a block of tq_mem_malloc owned by whoever receives the record. */
#ifndef TQREADER_PROTOCOL_RESULT_REPORT_H
#define TQREADER_PROTOCOL_RESULT_REPORT_H

#include "core/config/session_config.h"
#include "util/api.h"

TQ_BEGIN_C

/* Fills `result` from the delivered bytes of 0x6102 or 0x6113, flag byte first: 0 gives the business id
   alone, 1 the identity as JSON, 2 the raw bytes. Returns TQ_OK, or TQ_RESPONSE_MALFORMED for any other flag,
   a length that runs past the end, a NUL in the text, or lack of memory; then `result` is untouched. */
TQ_API int32_t result_info_data_parse(SessionConfig* cfg, const uint8_t* data, uint32_t length,
                                      info_data* result);

/* Fills `result` with the text that names the business id of a failed read. */
TQ_API void result_business_id_parse(SessionConfig* cfg, info_data* result);

TQ_END_C

#endif
