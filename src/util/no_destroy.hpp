// A process-wide object that is never destroyed, so that a thread may still use it while the process exits.
#pragma once

#include <new>

namespace tq {

template <typename T>
class NoDestroy {
 public:
  NoDestroy() { new (space_) T(); }
  NoDestroy(const NoDestroy&) = delete;
  NoDestroy& operator=(const NoDestroy&) = delete;

  T& get() { return *std::launder(reinterpret_cast<T*>(space_)); }

 private:
  alignas(T) unsigned char space_[sizeof(T)];
};

}  // namespace tq
