/* Where does the NFC antenna of this phone sit? One request, the 9300 frame, protected with SM4 and sent by
   HTTPS (see https_exchange.h), and an answer of one byte. */
#ifndef TQREADER_LOCATION_LOCATION_REQUEST_H
#define TQREADER_LOCATION_LOCATION_REQUEST_H

#include "core/result_code.h"
#include "location/scp_context.h"
#include "util/api.h"

TQ_BEGIN_C

/* TQ_OK when the text is 20 or 7 characters long, else TQ_FAILED. */
TQ_API int32_t scp_appid_check(const char* text);

/* TQ_OK when the text is there and has at most 64 characters, else TQ_FAILED. */
TQ_API int32_t scp_manufacturers_check(const char* text);
TQ_API int32_t scp_model_check(const char* text);

/* Checks the values and stores them. An appid of 7 characters is filled up with '0' to 20; of the host, 127
   characters are kept. Returns TQ_OK, TQ_BAD_APPID, or TQ_OUT_OF_RANGE for anything else that is wrong. */
TQ_API int32_t scp_init(ScpContext* context, const char* appid, int32_t envIdCode, uint32_t logLevel,
                        uint32_t type, const char* manufacturer, const char* model, const char* host,
                        uint32_t port);

/* Stores the application's clock. Returns TQ_OK, or TQ_OUT_OF_RANGE for none. */
TQ_API int32_t scp_register_GT_callback(ScpContext* context, scp_time_source timeSource);

/* Asks the server. Writes its answer, 0 to 255, to `result` and returns TQ_OK. Otherwise `result` is left as
   it is: the last set-up error or TQ_MISSING_CALL when the set-up is incomplete; TQ_REQUEST_NOT_BUILT,
   TQ_EXCHANGE_FAILED, TQ_RESPONSE_MALFORMED; or the server's own status. */
TQ_API int32_t scp_authentication(const ScpContext* context, uint32_t* result);

/* Builds the request frame, at most 208 bytes. Returns its length, or TQ_FAILED when it does not fit. */
TQ_API int32_t scp_input_9300_group(const ScpContext* context, uint8_t* out, uint32_t capacity);

/* Takes an answer frame apart. Writes the location to `result` and returns TQ_OK; or the server's status; or
   TQ_FAILED for a frame that is not as it should be. */
TQ_API int32_t scp_output_9300_analysis(const ScpContext* context, const uint8_t* answer, uint32_t length,
                                        uint32_t* result);

TQ_END_C

#endif
