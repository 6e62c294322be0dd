#include "crypto/rc4.hpp"

#include <numeric>
#include <utility>

#include "util/secret.hpp"

namespace tq {

Rc4::Rc4(std::span<const uint8_t> key) {
  std::iota(s_.begin(), s_.end(), uint8_t{0});
  uint8_t j = 0;
  for (size_t i = 0; i < s_.size(); ++i) {
    j = static_cast<uint8_t>(j + s_[i] + key[i % key.size()]);
    std::swap(s_[i], s_[j]);
  }
}

Rc4::~Rc4() {
  wipe(this, sizeof *this);
}

void Rc4::apply(std::span<const uint8_t> in, std::span<uint8_t> out) {
  uint8_t i = i_;
  uint8_t j = j_;
  for (size_t at = 0; at < in.size(); ++at) {
    const uint8_t x = s_[++i];
    j = static_cast<uint8_t>(j + x);
    const uint8_t y = s_[j];
    s_[i] = y;
    s_[j] = x;
    out[at] = in[at] ^ s_[static_cast<uint8_t>(x + y)];
  }
  i_ = i;
  j_ = j;
}

}  // namespace tq
