/* Values that requests take from the configuration: the device id and the protocol's pseudo-random bytes. */
#ifndef TQREADER_CORE_CONFIG_DEVICE_VALUES_H
#define TQREADER_CORE_CONFIG_DEVICE_VALUES_H

#include "core/config/session_config.h"
#include "util/api.h"

TQ_BEGIN_C

/* Copies the device id (the first serial-number text) without a terminator into `dst` of `capacity` bytes.
   Returns its length, 0 when none is configured, or TQ_FAILED when it is longer than `capacity`. */
TQ_API int32_t tq_get_device_id(const SessionConfig* cfg, char* dst, uint32_t capacity);

/* For callers from outside: nothing in the library calls what follows. */

/* Fills `dst` with n bytes of a linear congruential generator seeded with the application's current time in
   milliseconds, read once. Not a cryptographic generator: two calls within one millisecond give the same
   bytes. Returns the time that was read, 0 without a timestamp callback. n below 1 writes nothing. */
TQ_API int64_t create_rand_number(SessionConfig* cfg, uint8_t* dst, int32_t n);

TQ_END_C

#endif
