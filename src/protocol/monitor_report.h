/* The monitor report that closes every read, command 0x7219: the application sees the record and what it
   answers goes to the server. Best effort: nothing here fails a read. */
#ifndef TQREADER_PROTOCOL_MONITOR_REPORT_H
#define TQREADER_PROTOCOL_MONITOR_REPORT_H

#include "core/config/session_config.h"
#include "util/api.h"

TQ_BEGIN_C

/* Fills the monitor record, shows it to the application and sends the answer to the server. `startTime` is
   the start of the read on the application's clock, `delay` the duration of its authentication, both in
   milliseconds; `sodText` the passport's security-object text, "" for identity cards; `prefix` 16 bytes or
   null; `stickCardId` 16 bytes. */
TQ_API void monitor_data_parse(SessionConfig* cfg, const uint8_t* workKey, int64_t startTime, int32_t result,
                               uint32_t delay, const char* sodText, int32_t unused, const uint8_t* prefix,
                               const uint8_t* stickCardId);

/* Builds the 7219 frame around `jsonLength` bytes of text, which may lie in `out`. `prefix` is 16 bytes sent
   unencrypted, zeros when null. Returns the frame length, or TQ_FAILED. */
TQ_API int32_t input_7219_group(SessionConfig* cfg, const char* json, uint32_t jsonLength,
                                const uint8_t* workKey, uint8_t* out, uint32_t capacity,
                                const uint8_t* prefix);

TQ_END_C

#endif
