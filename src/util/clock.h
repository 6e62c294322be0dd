/* The library's millisecond clock. */
#ifndef TQREADER_UTIL_CLOCK_H
#define TQREADER_UTIL_CLOCK_H

#include "util/api.h"

TQ_BEGIN_C

/* Wall-clock milliseconds: the UTC time read as local time, plus eight hours. On a device whose zone is UTC+8
   this is the Unix time. A negative value is a clock failure. */
TQ_API int64_t getNowTimestamp(void);

TQ_END_C

#endif
