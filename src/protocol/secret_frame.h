/* The inner frame of the encrypted commands: FF FF FF, length, command, data, checksum, FE FE. It is
   encrypted as a whole with SM4-CBC under the work key and is the payload of the outer frame. Its length
   field has 4 bytes for the passport commands 0x7201 and 0x7202, else 2. Integers are big-endian. */
#ifndef TQREADER_PROTOCOL_SECRET_FRAME_H
#define TQREADER_PROTOCOL_SECRET_FRAME_H

#include "core/result_code.h"
#include "util/api.h"

TQ_BEGIN_C

/* Builds and encrypts a secret frame in `out`, which needs data + 28 bytes. `workKey` has 32 bytes. Returns
   the encrypted length, or TQ_FAILED for empty data or too little room. */
TQ_API int32_t input_secret_command_group(const uint8_t* data, uint32_t length, uint32_t command,
                                          const uint8_t* workKey, uint8_t* out, uint32_t capacity);

/* Checks a decrypted secret frame and copies its data to `out`, which may be the same buffer. The data are
   there even when the checksum or the end marker is wrong. Returns the data length, or TQ_FAILED. */
TQ_API int32_t output_secret_command_analysis(const uint8_t* frame, uint32_t frameLength, uint32_t command,
                                              uint8_t* out, uint32_t capacity);

TQ_END_C

#endif
