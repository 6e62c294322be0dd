/* The decode server's SM4 key of each environment. It belongs to the deployment, is kept scrambled in the
   library and is put together when it is needed. */
#ifndef TQREADER_PROTOCOL_PROTOCOL_KEY_H
#define TQREADER_PROTOCOL_PROTOCOL_KEY_H

#include "core/result_code.h"
#include "util/api.h"

TQ_BEGIN_C

/* Writes the 16-byte key for the environment code (52302, 26814; any other counts as 268) to `key`. Returns
   16, or TQ_FAILED. The caller wipes it. */
TQ_API int32_t TQ_getSm4PubulicKey(uint32_t envIdCode, uint8_t* key);

TQ_END_C

#endif
