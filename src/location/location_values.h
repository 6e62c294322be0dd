/* Values that belong to a location request: the location server's key and the protocol's pseudo-random bytes.
 */
#ifndef TQREADER_LOCATION_LOCATION_VALUES_H
#define TQREADER_LOCATION_LOCATION_VALUES_H

#include "core/result_code.h"
#include "location/scp_context.h"
#include "util/api.h"

TQ_BEGIN_C

/* Writes the location server's 16-byte SM4 key for the environment code (52302, 26814; any other counts as
   268) to `key`. Returns 16, or TQ_FAILED for a null pointer. The caller wipes it. */
TQ_API int32_t scp_getPublicKey(int32_t envIdCode, uint8_t* key);

/* What create_rand_number does, with the time source of the location service. */
TQ_API int64_t scp_crate_rand_number(const ScpContext* context, uint8_t* dst, int32_t n);

TQ_END_C

#endif
