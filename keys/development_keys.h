/* The server keys of a deployment: 16 bytes each, as 32 hexadecimal digits, one for each environment code.

   THESE VALUES ARE FOR DEVELOPMENT ONLY. They are public, and the simulator uses them too. A deployment
   writes a header like this one with its own values and names it when it configures the build:

       cmake -DTQREADER_KEYS=/path/to/keys.h ... */
#ifndef TQREADER_KEYS_H
#define TQREADER_KEYS_H

/* Decode server */
#define TQREADER_DECODE_KEY_268 "DE0E10900000000000000000DEC0D268"
#define TQREADER_DECODE_KEY_52302 "DE0E109000000000000000DEC0D52302"
#define TQREADER_DECODE_KEY_26814 "DE0E109000000000000000DEC0D26814"

/* Location server */
#define TQREADER_LOCATION_KEY_268 "DE0E10900000000000000010CA710268"
#define TQREADER_LOCATION_KEY_52302 "DE0E109000000000000010CA71052302"
#define TQREADER_LOCATION_KEY_26814 "DE0E109000000000000010CA71026814"

#endif
