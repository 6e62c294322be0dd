/* Relaying the card's mutual authentication: 0x5001, 0x5012, 0x5022 and 0x5032 carry the card's answers to
   the server and bring back the next command for the card. */
#ifndef TQREADER_PROTOCOL_CARD_AUTH_H
#define TQREADER_PROTOCOL_CARD_AUTH_H

#include "core/config/session_config.h"
#include "util/api.h"

TQ_BEGIN_C

/* Room of one card-authentication exchange: its request and its response share one buffer. */
enum { TQ_CARD_AUTH_BUFFER = 260 };

/* Builds the request from the card's answer (without status word): exactly 32 bytes for 0x5001, else 8 or 18.
   `workKey` has 32 bytes. Returns the frame length, or TQ_FAILED. */
TQ_API int32_t input_auth_cmd_group(SessionConfig* cfg, const uint8_t* card, uint32_t cardLength,
                                    uint32_t command, const uint8_t* workKey, uint8_t* out,
                                    uint32_t capacity);

/* Checks the response and delivers the next command for the card, which may go to the buffer of the frame.
   The 8 bytes of 0x5001, 0x5022 and 0x5032 get their ISO/IEC 7816-4 command header in front. Returns the
   number of bytes, TQ_FAILED, or the server's status. */
TQ_API int32_t output_auth_cmd_analysis(const uint8_t* frame, uint32_t frameLength, uint32_t command,
                                        const uint8_t* workKey, uint8_t* out, uint32_t capacity);

TQ_END_C

#endif
