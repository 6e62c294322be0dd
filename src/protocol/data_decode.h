/* Sending the card's files for decoding: 0x6002 and 0x6102 carry the management data and the files 6011 and
   6012, 0x6113 carries the file 6013. */
#ifndef TQREADER_PROTOCOL_DATA_DECODE_H
#define TQREADER_PROTOCOL_DATA_DECODE_H

#include "core/result_code.h"
#include "util/api.h"

TQ_BEGIN_C

enum {
  TQ_MANAGEMENT_LENGTH = 32, /* the card's management data */
  TQ_FILE_6011_LENGTH = 214,
  TQ_FILE_6012_LENGTH = 256,
  TQ_FILE_6013_LENGTH = 1024
};

/* Room of one decode exchange: request and response share one buffer. The larger one is for 0x6113 when
   readMode and decodeMode are both 0. */
enum { TQ_DECODE_BUFFER = 1128, TQ_DECODE_BUFFER_LARGE = 7168 };

/* Timings of a read, milliseconds on the application's clock. */
typedef struct TqTiming {
  uint32_t cardTime; /* average response time of the card */
  uint32_t fileTime; /* time spent on reading files */
  uint32_t exchangeCount;
  int64_t startTime;
  int64_t endTime;
} TqTiming;

/* Builds the request of 0x6002, 0x6102 or 0x6113 from the files it takes, which must have their exact sizes;
   the others are not looked at. `workKey` has 32 bytes. Returns the frame length, or TQ_FAILED. */
TQ_API int32_t input_data_decode_group(const uint8_t* management, uint32_t managementLength,
                                       const uint8_t* file6011, uint32_t file6011Length,
                                       const uint8_t* file6012, uint32_t file6012Length,
                                       const uint8_t* file6013, uint32_t file6013Length, uint32_t command,
                                       const uint8_t* workKey, uint8_t* out, uint32_t capacity,
                                       const TqTiming* timing);

/* Checks the response. 0x6002 delivers the data of its secret frame; the others deliver the flag byte and the
   data, which are copied only if they fit. `frame` and `out` may be the same buffer. Returns the length,
   whether copied or not, TQ_FAILED, or the server's status. */
TQ_API int32_t output_data_decode_analysis(const uint8_t* frame, uint32_t frameLength, uint32_t command,
                                           const uint8_t* workKey, uint8_t* out, uint32_t capacity);

TQ_END_C

#endif
