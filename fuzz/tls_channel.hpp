// A server in memory for the TLS client: what it sends comes from the fuzz target, piece by piece, and what
// the client sends is collected.
#pragma once

#include <algorithm>

#include "harness.hpp"
#include "tls/environment.hpp"

namespace fuzz {

class TlsChannel : public tq::tls::ByteChannel {
 public:
  // At most `piece` bytes at a time (not 0).
  explicit TlsChannel(size_t piece) : piece_(piece) {}
  virtual ~TlsChannel() = default;

  // Gives the client bytes to read, when it has read all that there were; false is the end of the stream.
  virtual bool more() = 0;
  virtual void sent(View bytes) = 0;

  void give(View bytes) { append(waiting_, bytes); }

  ptrdiff_t read(std::span<uint8_t> out) final {
    require(!out.empty());
    while (place_ == waiting_.size()) {
      if (!more()) return 0;
    }
    const size_t len = std::min({out.size(), piece_, waiting_.size() - place_});
    std::memcpy(out.data(), waiting_.data() + place_, len);
    place_ += len;
    return static_cast<ptrdiff_t>(len);
  }
  bool write(View bytes) final {
    sent(bytes);
    return true;
  }
  void write_without_waiting(View bytes) final { sent(bytes); }
  void hurry(int64_t /*limit_ms*/) final {}

 private:
  size_t piece_;
  size_t place_ = 0;
  Bytes waiting_;
};

// The SubjectPublicKeyInfo of an RSA key, and a certificate whose other parts are empty.
inline Bytes key_info(View key) {
  const Bytes algorithm = {0x30, 0x0D, 0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 1, 1, 1, 0x05, 0x00};
  return element(0x30, algorithm + element(0x03, Bytes{0} + key));
}
inline Bytes certificate(View info) {
  const Bytes start = {0xA0, 3, 0x02, 1, 2, 0x02, 1, 5};
  const Bytes to_be_signed = element(0x30, start + Bytes{0x30, 0, 0x30, 0, 0x30, 0, 0x30, 0} + info);
  return element(0x30, to_be_signed + Bytes{0x30, 0, 0x03, 1, 0});
}

// 1, 2, 3 ... with zeros left out.
class CountingRandom final : public tq::tls::RandomSource {
 public:
  bool fill(std::span<uint8_t> out) override {
    for (uint8_t& byte : out) {
      if (++last_ == 0) ++last_;
      byte = last_;
    }
    return true;
  }

 private:
  uint8_t last_ = 0;
};

}  // namespace fuzz
