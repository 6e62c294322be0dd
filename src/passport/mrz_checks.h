/* Checks and normalises what the application gives of the machine-readable zone: the values that open the
   chip of a passport (ICAO Doc 9303-11 section 4.3). */
#ifndef TQREADER_PASSPORT_MRZ_CHECKS_H
#define TQREADER_PASSPORT_MRZ_CHECKS_H

#include "core/result_code.h"
#include "util/api.h"

TQ_BEGIN_C

enum {
  TQ_DOCUMENT_NUMBER_SIZE = 24, /* room for a document number with the zeros that end it */
  TQ_DOCUMENT_NUMBER_MAX = 20,
  TQ_MRZ_DATE_SIZE = 8, /* room for a date with the zeros that end it */
  TQ_MRZ_DATE_LENGTH = 6
};

/* Writes the document number without surrounding blanks, in upper case and filled up to 9 characters with
   "<", to the zeroed field `out` of 24 bytes; no terminator is written. Returns TQ_OK, TQ_MISSING_CALL for
   null, empty or blank input, TQ_OUT_OF_RANGE beyond 20 characters or for one that is no letter or digit;
   then `out` is untouched. */
TQ_API int32_t Passport_No_check(const char* input, char* out);

/* Writes the six digits of a date, YYMMDD, without surrounding blanks, to the zeroed field `out` of 8 bytes.
   No calendar is consulted. Returns TQ_OK, TQ_MISSING_CALL for null, empty or blank input, TQ_OUT_OF_RANGE
   for anything but six digits; then `out` is untouched. */
TQ_API int32_t Date_of_birth_or_expiry_check(const char* input, char* out);

TQ_END_C

#endif
