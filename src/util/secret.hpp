// Memory that is wiped when it leaves use: fixed arrays (Secret) and heap scratch (ScratchBuffer).
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <type_traits>
#include <utility>

#include "util/memory.h"

namespace tq {

// Overwrites with zeros in a way the compiler must keep.
inline void wipe(void* data, size_t len) {
  std::memset(data, 0, len);
  __asm__ __volatile__("" : : "r"(data) : "memory");
}

inline void wipe(std::span<uint8_t> bytes) {
  if (!bytes.empty()) wipe(bytes.data(), bytes.size());
}

// Wipes an object that somebody else owns when the scope ends.
template <typename T>
class WipeOnExit {
  static_assert(std::is_trivially_copyable_v<T>);

 public:
  explicit WipeOnExit(T& object) : object_(object) {}
  ~WipeOnExit() { wipe(&object_, sizeof(T)); }
  WipeOnExit(const WipeOnExit&) = delete;
  WipeOnExit& operator=(const WipeOnExit&) = delete;

 private:
  T& object_;
};

// Keys, key seeds, padded messages, decrypted records of a fixed size.
template <size_t N>
class Secret {
 public:
  Secret() = default;
  ~Secret() { wipe(bytes_); }
  Secret(const Secret&) = delete;
  Secret& operator=(const Secret&) = delete;

  std::span<uint8_t, N> bytes() { return bytes_; }
  std::span<const uint8_t, N> bytes() const { return bytes_; }
  uint8_t* data() { return bytes_.data(); }
  const uint8_t* data() const { return bytes_.data(); }
  static constexpr size_t size() { return N; }

 private:
  std::array<uint8_t, N> bytes_{};
};

// A zeroed heap block of the protocol code, wiped and given back when it goes out of scope.
// Test it before use: it is empty when there was no memory.
class ScratchBuffer {
 public:
  explicit ScratchBuffer(size_t len)
      : data_(static_cast<uint8_t*>(tq_mem_malloc(len == 0 ? 1 : len))), len_(len) {
    if (data_ == nullptr) {
      len_ = 0;
    } else {
      std::memset(data_, 0, len == 0 ? 1 : len);
    }
  }
  ~ScratchBuffer() {
    if (data_ == nullptr) return;
    wipe(data_, len_);
    tq_mem_free(data_);
  }
  ScratchBuffer(const ScratchBuffer&) = delete;
  ScratchBuffer& operator=(const ScratchBuffer&) = delete;

  explicit operator bool() const { return data_ != nullptr; }
  uint8_t* data() { return data_; }
  size_t size() const { return len_; }
  std::span<uint8_t> bytes() { return {data_, len_}; }
  std::span<const uint8_t> bytes() const { return {data_, len_}; }

  // Hands the block to a new owner, who gives it back with tq_mem_free.
  uint8_t* release() {
    len_ = 0;
    return std::exchange(data_, nullptr);
  }

 private:
  uint8_t* data_;
  size_t len_;
};

}  // namespace tq
