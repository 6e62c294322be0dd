// The log lines of the binding: application type, level info, domain 0, and an empty tag (a null one makes
// the phone drop the line, or end the process). TQREADER_LOG chooses among
//   full     every line with all that it tells
//   private  the same lines; the system masks what is about a person, a document, a card, a key or a time
//   off      no line, and no text of one in the library
#pragma once

#include <hilog/log.h>

#if defined(TQREADER_LOG_OFF)
#define TQ_LOG(...)                                                 \
  do {                                                              \
    if (false) OH_LOG_Print(LOG_APP, LOG_INFO, 0, "", __VA_ARGS__); \
  } while (false)
#else
#define TQ_LOG(...) OH_LOG_Print(LOG_APP, LOG_INFO, 0, "", __VA_ARGS__)
#endif

// The conversion of a value that only a full log shows: TQ_PERSONAL("s").
#if defined(TQREADER_LOG_FULL)
#define TQ_PERSONAL(conversion) "%{public}" conversion
#else
#define TQ_PERSONAL(conversion) "%{private}" conversion
#endif
