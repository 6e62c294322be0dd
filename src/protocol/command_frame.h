/* The outer frame of every message between the library and the decode server: a plaintext header with length
   and command, a payload and a one-byte additive checksum. Integers are big-endian. The passport commands
   0x7201 and 0x7202 have 4-byte length fields (long form), all others 2-byte ones. */
#ifndef TQREADER_PROTOCOL_COMMAND_FRAME_H
#define TQREADER_PROTOCOL_COMMAND_FRAME_H

#include "core/result_code.h"
#include "util/api.h"

TQ_BEGIN_C

/* Sum of the bytes; callers keep its low 8 bits. 0 for a count of 0. */
TQ_API uint32_t check_sum_group(const uint8_t* bytes, uint32_t count);

/* Builds a request frame around `payload` in `out`. Returns its length (payload + 11, long form + 13), or
   TQ_FAILED when it does not fit `capacity` or its own length field. `payload` may lie in `out`. */
TQ_API int32_t input_command_group(const uint8_t* payload, uint32_t payloadLength, uint8_t header,
                                   uint32_t command, uint32_t frameParameter, uint8_t typeByte, uint8_t* out,
                                   uint32_t capacity);

/* Checks a response frame and delivers its payload to `out`: as it is for 0x7100 and 0x7500, otherwise
   decrypted under the 32-byte `workKey`. With type byte 0x99 the first payload byte is a flag, delivered as
   it is; the rest is decrypted only when it is 1. `responseParameter` receives the frame's own parameter.
   `frame` and `out` may be the same buffer. Returns the delivered length, TQ_FAILED for a malformed frame, or
   the server's status: the negative decimal reading of its digits. */
TQ_API int32_t output_command_anlysis(const uint8_t* frame, uint32_t frameLength, uint8_t header,
                                      uint32_t command, uint32_t* responseParameter, uint8_t typeByte,
                                      const uint8_t* workKey, uint8_t* out, uint32_t capacity);

TQ_END_C

#endif
