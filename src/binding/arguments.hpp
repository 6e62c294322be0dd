// Reading the JavaScript arguments of an exported function by position. What is missing or of another type
// reads as an empty text or 0.
#pragma once

#include <napi/native_api.h>

#include <array>
#include <cstddef>
#include <cstdint>

#include "binding/host_environment.hpp"
#include "util/secret.hpp"

namespace tq {

template <size_t N>
class Arguments {
 public:
  Arguments(napi_env env, napi_callback_info info) : env_(env) {
    size_t count = N;
    void* data = nullptr;
    napi_get_cb_info(env, info, &count, values_.data(), nullptr, &data);
    host_ = HostEnvironment::of(data);
  }

  // The state of the environment that the function was exported to.
  HostEnvironment& host() const { return *host_; }

  napi_value value(size_t position) const { return values_[position]; }

  int32_t integer(size_t position) const {
    int32_t number = 0;
    return napi_get_value_int32(env_, values_[position], &number) == napi_ok ? number : 0;
  }

  // Fills a zeroed buffer with at most size - 1 bytes of UTF-8; the rest is cut off. False, and an empty
  // text, when it is none.
  bool text(size_t position, char* buffer, size_t size) const {
    size_t length = 0;
    if (napi_get_value_string_utf8(env_, values_[position], buffer, size, &length) == napi_ok) return true;
    buffer[0] = '\0';
    return false;
  }

  napi_value result(int32_t code) const {
    napi_value number = nullptr;
    return napi_create_int32(env_, code, &number) == napi_ok ? number : nullptr;
  }

 private:
  napi_env env_;
  std::array<napi_value, N> values_{};
  HostEnvironment* host_ = nullptr;
};

// A text argument in a zeroed buffer of its own, wiped after use.
template <size_t Size>
class TextArgument {
 public:
  template <size_t N>
  TextArgument(const Arguments<N>& arguments, size_t position)
      : given_(arguments.text(position, text_.data(), text_.size())) {}
  ~TextArgument() { wipe(text_.data(), text_.size()); }
  TextArgument(const TextArgument&) = delete;
  TextArgument& operator=(const TextArgument&) = delete;
  const char* c_str() const { return text_.data(); }
  bool given() const { return given_; }

 private:
  std::array<char, Size> text_{};
  bool given_;
};

}  // namespace tq
