/* Every result code that reaches the application, in one list. A failure status sent by a server
   comes through as the negative decimal reading of its status digits and has no name here. */
#ifndef TQREADER_CORE_RESULT_CODE_H
#define TQREADER_CORE_RESULT_CODE_H

enum TqResultCode {
  TQ_OK = 0,
  TQ_FAILED = -1,                     /* general failure of a low-level routine; a malformed frame */
  TQ_BAD_SERIAL_NUMBER = -13002,      /* a serial-number text is too long or holds a byte of 0x81 or above */
  TQ_BAD_APPID = -13003,              /* the appid is missing or has not the form that is asked for */
  TQ_MISSING_CALL = -13008,           /* a needed call or value is missing */
  TQ_OUT_OF_RANGE = -13009,           /* a value is out of range */
  TQ_QUERY_INFO_WITHOUT_A = -16303,   /* query info: read mode 1 with a = 0 */
  TQ_QUERY_INFO_WITH_C = -16304,      /* query info: read mode 1 with c = 1 */
  TQ_QUERY_INFO_A_AND_C = -16305,     /* query info: read mode 0 with a not 0 and c = 1 */
  TQ_CONNECT_FAILED = -20001,         /* the decode server could not be reached */
  TQ_PROBE_CONNECT_FAILED = -20003,   /* the server to be probed could not be connected to */
  TQ_PROBE_FAILED = -20004,           /* probe: no such name, no socket, or an exchange failed or timed out */
  TQ_EXCHANGE_FAILED = -22003,        /* decode or location server: an exchange failed or timed out */
  TQ_REQUEST_NOT_BUILT = -33005,      /* a server request could not be built */
  TQ_RESPONSE_MALFORMED = -35006,     /* a server response failed its checks */
  TQ_NO_THREAD = -35010,              /* the worker thread could not be created */
  TQ_AUTHENTICATION_REFUSED = -53001, /* the chip refused EXTERNAL AUTHENTICATE */
  TQ_NO_CARD_ANSWER = -93001,         /* the card did not answer */
  TQ_BAD_ARGUMENTS = -93003,          /* getPassportInfo was not given three texts */
  TQ_CARD_REFUSED = -93005,           /* the card answered 69 86, or access control failed */
  TQ_CARD_FAILED = -93006,            /* the card's answer reported a failure or could not be opened */
  TQ_CONNECT_DENIED = -99097          /* reserved for a connect that reports it; passed on as it is */
};

#endif
