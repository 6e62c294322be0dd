// What a connection needs from outside: a peer to talk to and random bytes. The socket and the random device
// stand behind these; tests and fuzz targets put their own here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace tq::tls {

class ByteChannel {
 public:
  ByteChannel() = default;
  ByteChannel(const ByteChannel&) = delete;
  ByteChannel& operator=(const ByteChannel&) = delete;

  // Waits for bytes and reads up to out.size() of them (not 0). Returns how many, 0 at the end of the stream,
  // -1 on an error or when a time limit has passed.
  [[nodiscard]] virtual ptrdiff_t read(std::span<uint8_t> out) = 0;

  // Writes everything, waiting where it must. False on an error or when a time limit has passed.
  [[nodiscard]] virtual bool write(std::span<const uint8_t> bytes) = 0;

  // Writes what can be written without waiting.
  virtual void write_without_waiting(std::span<const uint8_t> bytes) = 0;

  // From now on everything together may take at most this long; a limit that ends sooner stays.
  virtual void hurry(int64_t limit_ms) = 0;

 protected:
  ~ByteChannel() = default;
};

class RandomSource {
 public:
  RandomSource() = default;
  RandomSource(const RandomSource&) = delete;
  RandomSource& operator=(const RandomSource&) = delete;

  // Fills `out` with bytes fit for keys. False, with `out` wiped, when there are none.
  [[nodiscard]] virtual bool fill(std::span<uint8_t> out) = 0;

 protected:
  ~RandomSource() = default;
};

}  // namespace tq::tls
