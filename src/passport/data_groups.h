/* Which data groups a passport holds: from the tag list of EF.COM, or from the hash list in EF.SOD (ICAO Doc
   9303-10). Nothing else in these files is looked at, no hash and no signature. Identifiers are 01 01 (DG1)
   to 01 10 (DG16). */
#ifndef TQREADER_PASSPORT_DATA_GROUPS_H
#define TQREADER_PASSPORT_DATA_GROUPS_H

#include "core/result_code.h"
#include "util/api.h"

TQ_BEGIN_C

/* Write at most `max_ids` identifiers in the order of the file; return their number, which may be 0, or
 * TQ_FAILED when the file is malformed. */
TQ_API int32_t get_passport_files_IDS_COM(const uint8_t* file, uint32_t length, uint32_t* ids_out,
                                          uint32_t max_ids);
TQ_API int32_t get_passport_files_IDS_SOD(const uint8_t* file, uint32_t length, uint32_t* ids_out,
                                          uint32_t max_ids);

/* Walking tag-length-value data of `length` bytes by a position, which moves on success only. A tag has two
   bytes when the low four bits of the first are all set; a length is one byte below 80, or 81 and one byte,
   or 82 and two; before any other first byte the length is 0 and the position stays. Return 0, or TQ_FAILED
   past the end. */
TQ_API int32_t RP_getNextTag(const uint8_t* data, uint32_t length, uint32_t* pos, uint32_t* tag_out);
TQ_API int32_t RP_getNextLength(const uint8_t* data, uint32_t length, uint32_t* pos, uint32_t* len_out);
/* A value of `value_len` bytes, within `data`. */
TQ_API int32_t RP_getNextValue(const uint8_t* data, uint32_t length, uint32_t* pos, uint32_t value_len,
                               const uint8_t** value_out);

TQ_END_C

#endif
