// The location server's HTTP/1.1 response (RFC 9112): read as text, and its chunked body put together. Status
// line and headers are not looked at.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace tq {

// What has arrived so far. It grows as needed, up to kLongest; it is wiped and given back in the end.
class ResponseText {
 public:
  static constexpr size_t kLargestPiece = 2048;
  static constexpr size_t kLongest = 65536;

  ResponseText() = default;
  ~ResponseText();
  ResponseText(const ResponseText&) = delete;
  ResponseText& operator=(const ResponseText&) = delete;

  // Where the next piece goes; empty when the text is too long or there is no memory.
  [[nodiscard]] std::span<uint8_t> room();
  // `num_bytes` have been written to room(). As text: a NUL ends the piece.
  void add(size_t num_bytes);

  // True when it ends as a chunked response does.
  bool complete() const;
  std::string_view text() const { return {reinterpret_cast<const char*>(data_), len_}; }

 private:
  bool grow();

  uint8_t* data_ = nullptr;
  size_t capacity_ = 0;
  size_t len_ = 0;
};

// Puts the chunks of a response together in `body`, which is zeroed, up to the first end marker "0\r\n\r\n"
// in the text. Returns the body's length, or -1 when the text is malformed or the body does not fit.
[[nodiscard]] int32_t decode_chunked_body(std::string_view text, std::span<char> body);

}  // namespace tq
