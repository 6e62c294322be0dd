/* SM4 of whole messages with PKCS#7 padding (RFC 5652 section 6.3), as the two servers want it.
   1 to 16 bytes of padding are always added, behind the data and in the caller's own buffer: it has 16 bytes
   to spare. The output has room for the padded length and may be the input itself, but not overlap it
   otherwise. Each message starts from the same vector: equal messages give equal ciphertexts, by design of
   the protocols.

   Encryption returns the padded length: a multiple of 16. Decryption returns the length without the padding,
   whose bytes it sets to zero in the output; it looks at the last byte only, p, and takes any p that is not
   greater than the length, 0 included. Both return -1, with nothing written, for a null pointer and a length
   that is negative or too great; decryption also for a length below 1 or, when there is a cipher, no multiple
   of 16; and it returns -1 for a p greater than the length, with the decrypted blocks left in the output. */
#ifndef TQREADER_CRYPTO_SM4_PADDING_H
#define TQREADER_CRYPTO_SM4_PADDING_H

#include "util/api.h"

TQ_BEGIN_C

/* iv[i] = d[i] XOR d[i + 16], where d is the SM3 digest of the 16 bytes of `key`. */
TQ_API void TQ_sm4InitIv(const uint8_t key[16], uint8_t iv[16]);

/* Decode server: `key_block` is the 16-byte key followed by the 16-byte vector. `mode` 0 is CBC. Any other
   mode leaves out the cipher, but not the padding: it is written behind the data, or stripped from the output
   as it is. */
TQ_API int32_t TQ_sm4Encrypt(uint8_t* data, int32_t length, const uint8_t key_block[32], int32_t mode,
                             uint8_t* out);
TQ_API int32_t TQ_sm4Decrypt(const uint8_t* data, int32_t length, const uint8_t key_block[32], int32_t mode,
                             uint8_t* out);

/* Location server: the vector comes from the key, by TQ_sm4InitIv. `mode` 0 is CBC, any other ECB. */
TQ_API int32_t scp_sm4Encrypt(uint8_t* data, int32_t length, const uint8_t key[16], int32_t mode,
                              uint8_t* out);
TQ_API int32_t scp_sm4Decrypt(const uint8_t* data, int32_t length, const uint8_t key[16], int32_t mode,
                              uint8_t* out);

TQ_END_C

#endif
