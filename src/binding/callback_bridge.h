/* The functions that lead from the core into the application's JavaScript functions. The first four do so
   from any thread but JavaScript's. Everything crosses as text. On a worker they serve the environment whose
   read it runs; elsewhere the newest living one that has registered the function. On JavaScript's own thread
   the questions (monitor, time) stay unanswered. */
#ifndef TQREADER_BINDING_CALLBACK_BRIDGE_H
#define TQREADER_BINDING_CALLBACK_BRIDGE_H

#include "core/config/records.h"
#include "util/api.h"

TQ_BEGIN_C

/* Hands one card command (up to 511 bytes) to the application as JSON and returns at once. Returns the
   Node-API status of the hand-over, 0 when it was accepted; a worker's read ends with TQ_NO_CARD_ANSWER when
   it was not. `userData` is not used. */
TQ_API int32_t cardCallback(const uint8_t* apdu, uint32_t length, uint8_t serial, void* userData);

/* Shows the monitor record to the application as JSON (shorter than 2048 bytes) and waits up to 500 ms for
   its answer, a text from "{" to "}". Writes the answer, or whatever came instead of one, to `out` without a
   NUL. Returns its length, -1 when text or answer are too long or the application cannot be asked, or -2 when
   the calling worker's read was stopped before the application was. */
TQ_API int32_t shareMonitorDataCallback(const monitor_param* param, char* out, uint32_t outSize);

/* Asks the application for the current time in milliseconds and waits up to 500 ms for a value other than 0.
   Returns it, or 0. */
TQ_API int64_t shareGetNowTimeCallback(void);

/* Hands the result to the application as JSON and returns at once. `info->data` is wiped, freed and set to
   null, but for a failure whose data is no text: that stays with the caller. */
TQ_API void shareResultCallback(info_data* info);

/* Asks the time function of the location request that runs on the calling, JavaScript, thread. Returns
   milliseconds; 0 when the function gives no number or throws, and when there is no such request. */
TQ_API int64_t nfcPshareGetNowTimeCallback(void);

TQ_END_C

#endif
