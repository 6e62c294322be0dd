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
