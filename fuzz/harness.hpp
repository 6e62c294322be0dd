// What the fuzz targets share: exact heap blocks, response frames with everything right but their content,
// and a way to fail. The first bytes of an input choose the mode; each target says how.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <numeric>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "protocol/server_frames.hpp"

namespace fuzz {

using test::Bytes;
using test::response_frame;
using test::secret_frame;
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
  static const Bytes key = [] {
    Bytes bytes(32);
    std::iota(bytes.begin(), bytes.end(), uint8_t{0});
    return bytes;
  }();
  return key.data();
}

inline Bytes bytes_of(View view) {
  return {view.begin(), view.end()};
}

// SM4-CBC by OpenSSL. `key` is a key and its vector; see test::unseal for what is refused.
inline Bytes seal(View plain, const uint8_t* key = work_key()) {
  return test::seal(bytes_of(plain), bytes_of({key, 16}), bytes_of({key + 16, 16}));
}
inline std::optional<Bytes> unseal(View sealed, const uint8_t* key = work_key()) {
  return test::unseal(bytes_of(sealed), bytes_of({key, 16}), bytes_of({key + 16, 16}));
}

inline uint8_t sum(View bytes) {
  return static_cast<uint8_t>(std::accumulate(bytes.begin(), bytes.end(), 0U));
}

inline void append(Bytes& out, View in) {
  out.insert(out.end(), in.begin(), in.end());
}

// A DER element with the shortest length field.
inline Bytes element(uint8_t tag, View content) {
  Bytes out = {tag};
  const size_t width = content.size() < 0x100 ? 1 : content.size() < 0x10000 ? 2 : 3;
  if (content.size() >= 0x80) out.push_back(static_cast<uint8_t>(0x80 + width));
  append(out, test::be(content.size(), width));
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

inline size_t number(View bytes) {
  return std::accumulate(bytes.begin(), bytes.end(), size_t{0},
                         [](size_t n, uint8_t b) { return n << 8 | b; });
}

// What the status digits of an answer come to.
inline int32_t status_of(View status) {
  std::string digits = test::hex(status);
  std::replace(digits.begin(), digits.end(), 'f', '0');
  const long value = std::strtol(digits.c_str(), nullptr, 10);
  return value == 0 ? -1 : static_cast<int32_t>(-value);
}

// The payload of a response, decrypted where it should be, or the code that it comes to.
struct Opened {
  int32_t code = -1;
  Bytes payload = {};
  uint32_t parameter = 0;
};
inline Opened open_response(View frame, uint8_t header, uint32_t command, uint8_t type,
                            const uint8_t* key = work_key()) {
  const size_t width = test::length_width(command);
  const bool authenticates = command == 0x7500 || command == 0x7100;
  if (frame.size() < 6 + width || frame[0] != header || number(frame.subspan(1, width)) != frame.size())
    return {};
  const View fields = frame.subspan(1 + width);  // command, status, parameter, type
  const int32_t status = status_of(fields.subspan(2, 3));
  const size_t code = number(fields.first(2));
  if (code != command) return {authenticates && code == 0xFFFF ? status : -1};
  if (number(fields.subspan(2, 3)) != 0) return {status};
  if (fields.size() < 10 || number(fields.subspan(5, 2)) < 8 || fields[7] != type) return {};
  if (sum(frame.subspan(1, frame.size() - 2)) != frame.back()) return {};
  const View payload = fields.subspan(8, fields.size() - 9);
  const bool flagged = type == 0x99 && !authenticates;
  std::optional<Bytes> plain = bytes_of(payload);
  if (flagged && payload[0] == 1) {
    plain = unseal(payload.subspan(1), key);
    if (plain) plain->insert(plain->begin(), 1);
  } else if (!flagged && !authenticates) {
    plain = unseal(payload, key);
  }
  if (!plain) return {};
  return {static_cast<int32_t>(plain->size()), *plain, static_cast<uint32_t>(number(fields.subspan(5, 2)))};
}

// The data of a secret frame; nothing when it is not whole.
inline std::optional<Bytes> open_secret(View frame, uint32_t command) {
  const size_t around = 8 + test::length_width(command);
  if (frame.size() <= around) return std::nullopt;
  const Bytes data = bytes_of(frame.subspan(around - 3, frame.size() - around));
  if (bytes_of(frame) != test::secret_frame(command, data)) return std::nullopt;
  return data;
}

}  // namespace fuzz
