/* Reading one passport: started here, then driven by its worker thread and the application's answers. The
   outcome arrives through the result callback. */
#ifndef TQREADER_PASSPORT_PASSPORT_SESSION_H
#define TQREADER_PASSPORT_PASSPORT_SESSION_H

#include "core/config/session_config.h"
#include "util/api.h"

TQ_BEGIN_C

/* Starts a read of the passport with this document number, date of birth and date of expiry (YYMMDD), all
   NUL-terminated; an unfinished read of either kind is superseded. `stickCardId` has 16 bytes. Returns TQ_OK,
   the code of check_function_call or of the MRZ checks, or TQ_NO_THREAD. */
TQ_API int32_t passport_decode(SessionConfig* cfg, const char* number, const char* birth, const char* expiry,
                               const uint8_t* stickCardId);

/* Takes the application's answer to the command of this step and wakes the read that waits for it. Status -1
   and lengths outside 1 to 300 count as a missing answer. Never blocks; harmless when no read runs. */
TQ_API void passport_handler(SessionConfig* ctx, const uint8_t* data, uint32_t length, uint8_t serial,
                             int32_t status);

/* Cancels the running read: a waiting exchange with the server ends at once; a read that waits for the chip
   ends with its next answer. It reports nothing. */
TQ_API void passport_cancel(void);

TQ_END_C

#endif
