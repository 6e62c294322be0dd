// What the fuzz targets share: exact heap blocks, response frames with everything right but their content,
// and a way to fail. The first bytes of an input choose the mode; each target says how.
#pragma once

#include <algorithm>
#include <array>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <numeric>
#include <span>
#include <vector>

#include "crypto/sm4_padding.h"

namespace fuzz {

using Bytes = std::vector<uint8_t>;
using View = std::span<const uint8_t>;

inline void require(bool condition) {
  if (!condition) __builtin_trap();
}

// A heap block of exactly these bytes, so that the address sanitizer sees an access one byte too far. Never
// null.
class Block {
 public:
  explicit Block(View bytes) : Block(bytes.size()) {
    if (!bytes.empty()) std::memcpy(data(), bytes.data(), bytes.size());
  }
  explicit Block(size_t size) : data_(new uint8_t[size]), size_(size) {
    std::memset(data(), kUntouched, size);
  }

  uint8_t* data() { return data_.get(); }
  uint32_t size() const { return static_cast<uint32_t>(size_); }
  View bytes() const { return {data_.get(), size_}; }
  // True when nobody has written to a block that was made with a size alone.
  bool untouched() const {
    return std::all_of(data_.get(), data_.get() + size_, [](uint8_t byte) { return byte == kUntouched; });
  }

 private:
  static constexpr uint8_t kUntouched = 0xEE;
  std::unique_ptr<uint8_t[]> data_;
  size_t size_;
};

// The choices at the front of an input, zero when it is too short; what is left is the content.
class Choices {
 public:
  Choices(const uint8_t* data, size_t size) : rest_(data, size) {}

  uint8_t next() {
    const View front = take(1);
    return front.empty() ? uint8_t{0} : front[0];
  }
  // At most what is there.
  View take(size_t len) {
    const View front = rest_.first(std::min(len, rest_.size()));
    rest_ = rest_.subspan(front.size());
    return front;
  }
  template <typename T>
  T one_of(std::initializer_list<T> values) {
    return values.begin()[next() % values.size()];
  }
  View content() const { return rest_; }

 private:
  View rest_;
};

// Key 00..0F, vector 10..1F.
inline const uint8_t* work_key() {
  static const auto key = [] {
    std::array<uint8_t, 32> bytes{};
    std::iota(bytes.begin(), bytes.end(), uint8_t{0});
    return bytes;
  }();
  return key.data();
}

inline Bytes seal(View plain, const uint8_t* key = work_key()) {
  Bytes bytes(plain.begin(), plain.end());
  bytes.resize(plain.size() + 16);
  TQ_sm4Encrypt(bytes.data(), static_cast<int32_t>(plain.size()), key, 0, bytes.data());
  bytes.resize(plain.size() / 16 * 16 + 16);
  return bytes;
}

inline uint8_t sum(View bytes) {
  return static_cast<uint8_t>(std::accumulate(bytes.begin(), bytes.end(), 0U));
}

inline void append(Bytes& out, View in) {
  out.insert(out.end(), in.begin(), in.end());
}

inline void append_number(Bytes& out, size_t value, size_t width) {
  for (size_t i = width; i > 0; --i) out.push_back(static_cast<uint8_t>(value >> (8 * (i - 1))));
}

// A DER element with the shortest length field.
inline Bytes element(uint8_t tag, View content) {
  Bytes out = {tag};
  const size_t width = content.size() < 0x100 ? 1 : content.size() < 0x10000 ? 2 : 3;
  if (content.size() >= 0x80) out.push_back(static_cast<uint8_t>(0x80 + width));
  append_number(out, content.size(), width);
  append(out, content);
  return out;
}

inline Bytes operator+(Bytes left, View right) {
  append(left, right);
  return left;
}

// An EF.SOD with nothing but the way to its list of hashes.
inline Bytes security_object(View hashes) {
  const Bytes number = {0x02, 1, 0};
  const Bytes type = {0x06, 0};
  const Bytes object = element(0x30, number + Bytes{0x30, 0} + element(0x30, hashes));
  const Bytes content = element(0x30, type + element(0xA0, element(0x04, object)));
  return element(0x77, element(0x30, type + element(0xA0, element(0x30, number + Bytes{0x31, 0} + content))));
}

inline size_t length_width(uint32_t command) {
  return command == 0x7201 || command == 0x7202 ? 4 : 2;
}

// A response that says success, unless it has a status.
inline Bytes response_frame(uint8_t header, uint32_t command, uint8_t type, uint32_t parameter, View payload,
                            uint32_t status = 0) {
  const size_t width = length_width(command);
  Bytes frame = {header};
  append_number(frame, payload.size() + 10 + width, width);
  append_number(frame, command, 2);
  append_number(frame, status, 3);
  append_number(frame, parameter, 2);
  frame.push_back(type);
  append(frame, payload);
  frame.push_back(sum(View(frame).subspan(1)));
  return frame;
}

inline Bytes secret_frame(uint32_t command, View data) {
  const size_t width = length_width(command);
  Bytes frame(3, 0xFF);
  append_number(frame, data.size() + 8 + width, width);
  append_number(frame, command, 2);
  append(frame, data);
  frame.push_back(sum(View(frame).subspan(3)));
  return frame + Bytes{0xFE, 0xFE};
}

// Codes that a response parser may return beside a length: a malformed frame, or six status digits.
inline void require_status(int32_t code) {
  require(code < 0 && code >= -999999);
}

}  // namespace fuzz
