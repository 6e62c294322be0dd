// Walking borrowed bytes: ByteReader for what a peer sent, ByteWriter for what we send. Integers are
// big-endian.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace tq {

// Copies `in` to the start of `out`; they may overlap. False, and nothing copied, when it does not fit.
[[nodiscard]] inline bool copy_bytes(std::span<const uint8_t> in, std::span<uint8_t> out) {
  if (in.size() > out.size()) return false;
  if (!in.empty()) std::memmove(out.data(), in.data(), in.size());
  return true;
}

// Front to back over borrowed bytes. A read that does not fit returns false and moves nothing.
class ByteReader {
 public:
  explicit ByteReader(std::span<const uint8_t> in) : in_(in) {}

  [[nodiscard]] bool take(size_t n, std::span<const uint8_t>& out) {
    if (n > in_.size()) return false;
    out = in_.first(n);
    in_ = in_.subspan(n);
    return true;
  }

  [[nodiscard]] bool skip(size_t n) {
    std::span<const uint8_t> passed_over;
    return take(n, passed_over);
  }

  [[nodiscard]] bool u8(uint8_t& value) {
    std::span<const uint8_t> b;
    if (!take(1, b)) return false;
    value = b[0];
    return true;
  }

  // An unsigned number of `width` bytes, 0 to 4.
  [[nodiscard]] bool number(size_t width, uint32_t& value) {
    std::span<const uint8_t> b;
    if (width > sizeof value || !take(width, b)) return false;
    value = 0;
    for (const uint8_t byte : b) value = (value << 8) | byte;
    return true;
  }

  std::span<const uint8_t> rest() const { return in_; }
  size_t size() const { return in_.size(); }
  [[nodiscard]] bool done() const { return in_.empty(); }

 private:
  std::span<const uint8_t> in_;
};

// Straight down into borrowed room. It remembers the first overflow: write everything, ask ok() once.
class ByteWriter {
 public:
  explicit ByteWriter(std::span<uint8_t> out) : out_(out) {}

  void u8(unsigned value) { number(value, 1); }

  // The low `width` bytes of `value`, 1 to 4.
  void number(uint32_t value, size_t width) {
    if (!room(width)) return;
    for (size_t i = width; i > 0; --i) out_[len_++] = static_cast<uint8_t>(value >> (8 * (i - 1)));
  }

  void bytes(std::span<const uint8_t> in) {
    if (in.empty() || !room(in.size())) return;
    std::memcpy(out_.data() + len_, in.data(), in.size());
    len_ += in.size();
  }

  void fill(uint8_t value, size_t n) {
    if (n == 0 || !room(n)) return;
    std::memset(out_.data() + len_, value, n);
    len_ += n;
  }

  // What has been written so far.
  std::span<const uint8_t> written() const { return out_.first(len_); }
  size_t size() const { return len_; }
  [[nodiscard]] bool ok() const { return !overflowed_; }

 private:
  bool room(size_t n) {
    if (overflowed_ || n > out_.size() - len_) overflowed_ = true;
    return !overflowed_;
  }

  std::span<uint8_t> out_;
  size_t len_ = 0;
  bool overflowed_ = false;
};

}  // namespace tq
