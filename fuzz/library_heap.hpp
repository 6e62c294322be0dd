// The library's heap under a harness: what lives, the allocation that fails, and the secrets that no freed
// block may hold. The linker sends the calls here (--wrap).
#pragma once

#include <malloc.h>

#include "harness.hpp"

namespace fuzz {

struct Heap {
  static constexpr size_t kMostLive = size_t{4} << 20;  // bytes

  size_t num_live = 0;
  size_t live_bytes = 0;
  size_t num_taken = 0;
  size_t failing = 0;  // the allocation of this number fails; 0 = none
  bool armed = false;  // the library runs, not the harness
  std::vector<Bytes> secrets = {};

  bool whole() const { return failing == 0 || num_taken < failing; }
  bool holds_secrets(View memory) const {
    return std::any_of(secrets.begin(), secrets.end(), [memory](const Bytes& secret) {
      return memmem(memory.data(), memory.size(), secret.data(), secret.size()) != nullptr;
    });
  }
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
  using fuzz::g_heap;
  if (g_heap.armed && ++g_heap.num_taken == g_heap.failing) return nullptr;
  void* block = __real_tq_mem_malloc(size);
  ++g_heap.num_live;
  g_heap.live_bytes += malloc_usable_size(block);
  fuzz::require(g_heap.live_bytes < fuzz::Heap::kMostLive);
  return block;
}

void __wrap_tq_mem_free(void* block) {
  using fuzz::g_heap;
  if (block == nullptr) return;
  --g_heap.num_live;
  g_heap.live_bytes -= malloc_usable_size(block);
  fuzz::require(!g_heap.holds_secrets({static_cast<const uint8_t*>(block), malloc_usable_size(block)}));
  __real_tq_mem_free(block);
}

size_t allocations_of_last_run();
size_t allocations_of_last_run() {
  return fuzz::g_heap.num_taken;
}
}
