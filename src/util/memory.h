/* The heap of the protocol code: every scratch buffer is taken and given back through these two. */
#ifndef TQREADER_UTIL_MEMORY_H
#define TQREADER_UTIL_MEMORY_H

#include "util/api.h"

TQ_BEGIN_C

/* `size` bytes, uninitialised, owned by the caller until tq_mem_free; null when there is no memory. */
TQ_API void* tq_mem_malloc(size_t size);

/* Gives back a block of tq_mem_malloc; null does nothing. */
TQ_API void tq_mem_free(void* block);

TQ_END_C

#endif
