#include "util/memory.h"

#include <stdlib.h>

extern "C" void* tq_mem_malloc(size_t size) {
  return malloc(size);
}

extern "C" void tq_mem_free(void* block) {
  free(block);
}
