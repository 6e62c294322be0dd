// Handshake messages as the server sends them (RFC 5246 section 7.4), read piece by piece out of however many
// records they come in. Nothing is stored, so no length that a server claims costs memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "crypto/sha256.hpp"
#include "tls/record_layer.hpp"

namespace tq::tls {

enum class HandshakeType : uint8_t {
  kHelloRequest = 0,
  kClientHello = 1,
  kServerHello = 2,
  kCertificate = 11,
  kCertificateRequest = 13,
  kServerHelloDone = 14,
  kClientKeyExchange = 16,
  kFinished = 20,
};

inline constexpr size_t kMaxMessageLen = size_t{100} * 1024;  // room for chains of certificates
inline constexpr int kMaxHelloRequests = 32;

// A member that returns false has ended the connection, with the alert that fits.
class HandshakeReader {
 public:
  explicit HandshakeReader(RecordLayer& records) : records_(records) {}

  // Starts the next message that is not a HelloRequest.
  [[nodiscard]] bool next(HandshakeType& type);
  // The same, for when only one type will do.
  [[nodiscard]] bool expect(HandshakeType type);
  // Where no message has a place: reads the HelloRequest that is there, and nothing else will do.
  [[nodiscard]] bool take_hello_request();

  // Parts of the message's body; a part that goes beyond its end is a decode error.
  [[nodiscard]] bool number(size_t width, uint32_t& value);
  [[nodiscard]] bool bytes(std::span<uint8_t> out);
  [[nodiscard]] bool skip(size_t n);
  size_t remaining() const { return remaining_; }
  [[nodiscard]] bool end();  // nothing may be left

  // The server's ChangeCipherSpec, with no handshake bytes left over before it but whole HelloRequests.
  [[nodiscard]] bool change_cipher_spec();

  // All messages so far but HelloRequests. Ours are added by their sender.
  Sha256& transcript() { return transcript_; }

  bool fail(Alert alert) { return records_.fail(alert); }

 private:
  bool pull(size_t n, std::span<const uint8_t>& piece);
  bool pull_exactly(std::span<uint8_t> out);
  bool header(HandshakeType& type);

  RecordLayer& records_;
  Sha256 transcript_;
  size_t remaining_ = 0;
  int num_hello_requests_ = 0;
};

}  // namespace tq::tls
