// The library's heap under a harness: what lives, and the allocation that fails. The linker sends the calls
// here (--wrap).
#pragma once

#include <malloc.h>

#include "harness.hpp"

namespace fuzz {

struct Heap {
  size_t num_live = 0;
  size_t num_taken = 0;
  size_t failing = 0;  // the allocation of this number fails; 0 = none
  bool armed = false;  // the library runs, not the harness
  bool whole() const { return failing == 0 || num_taken < failing; }
};
inline Heap g_heap;

// While the library has called back into the harness.
class HarnessTime {
 public:
  HarnessTime() : armed_(g_heap.armed) { g_heap.armed = false; }
  ~HarnessTime() { g_heap.armed = armed_; }
  HarnessTime(const HarnessTime&) = delete;
  HarnessTime& operator=(const HarnessTime&) = delete;

 private:
  bool armed_;
};

}  // namespace fuzz

extern "C" {

void* __real_tq_mem_malloc(size_t size);
void __real_tq_mem_free(void* block);
void* __wrap_tq_mem_malloc(size_t size);
void __wrap_tq_mem_free(void* block);

void* __wrap_tq_mem_malloc(size_t size) {
  if (fuzz::g_heap.armed && ++fuzz::g_heap.num_taken == fuzz::g_heap.failing) return nullptr;
  ++fuzz::g_heap.num_live;
  return __real_tq_mem_malloc(size);
}

void __wrap_tq_mem_free(void* block) {
  if (block != nullptr) --fuzz::g_heap.num_live;
  __real_tq_mem_free(block);
}
}
