/* Marks of a public declaration: C linkage, visible in the shared library. Everything without TQ_API stays
 * inside. */
#ifndef TQREADER_UTIL_API_H
#define TQREADER_UTIL_API_H

#include <stddef.h>
#include <stdint.h>

#define TQ_API __attribute__((visibility("default")))

#ifdef __cplusplus
#define TQ_BEGIN_C extern "C" {
#define TQ_END_C }
#else
#define TQ_BEGIN_C
#define TQ_END_C
#endif

#endif
