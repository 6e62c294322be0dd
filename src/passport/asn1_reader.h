/* Readers of DER elements (ITU-T X.690). Each takes a read position, advanced on success, and the end of the
   data, and returns 0 or a TQ_ASN1_ code. */
#ifndef TQREADER_PASSPORT_ASN1_READER_H
#define TQREADER_PASSPORT_ASN1_READER_H

#include "util/api.h"

TQ_BEGIN_C

enum {
  TQ_ASN1_OUT_OF_DATA = -0x60,
  TQ_ASN1_UNEXPECTED_TAG = -0x62,
  TQ_ASN1_INVALID_LENGTH = -0x64,
  TQ_ASN1_LENGTH_MISMATCH = -0x66,
  TQ_ASN1_NO_MEMORY = -0x6A
};

/* The value of an element, within the caller's data. */
typedef struct DM_asn1_buf {
  int32_t tag;
  size_t len;
  const uint8_t* p;
} DM_asn1_buf;

typedef struct DM_asn1_bitstring {
  size_t len;
  uint8_t unused_bits; /* 0 to 7, in the last byte */
  const uint8_t* p;
} DM_asn1_bitstring;

/* A list of elements. The first node is the caller's, further ones are blocks of tq_mem_malloc. */
typedef struct DM_asn1_sequence {
  DM_asn1_buf buf;
  struct DM_asn1_sequence* next;
} DM_asn1_sequence;

/* A length, of at most four bytes behind 81 to 84, that must not run past the end. */
TQ_API int32_t DM_asn1_get_len(const uint8_t** pos, const uint8_t* end, size_t* len_out);

/* The expected tag and its length; the position is then at the value. */
TQ_API int32_t DM_asn1_get_tag(const uint8_t** pos, const uint8_t* end, size_t* len_out,
                               int32_t expected_tag);

/* A non-negative integer of at most four bytes. An empty one has the value 0. */
TQ_API int32_t DM_asn1_get_int(const uint8_t** pos, const uint8_t* end, int32_t* value_out);

/* A boolean: 0 or 1. */
TQ_API int32_t DM_asn1_get_bool(const uint8_t** pos, const uint8_t* end, int32_t* value_out);

/* A bit string that ends exactly at the end. */
TQ_API int32_t DM_asn1_get_bitstring(const uint8_t** pos, const uint8_t* end,
                                     DM_asn1_bitstring* bitstring_out);

/* A sequence, ending exactly at the end, of elements that all have one tag. `list` becomes its first node;
   after a failure nothing is allocated. */
TQ_API int32_t DM_asn1_get_sequence_of(const uint8_t** pos, const uint8_t* end, DM_asn1_sequence* list,
                                       int32_t element_tag);

TQ_END_C

#endif
