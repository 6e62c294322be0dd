// The hellos and the server's certificates: what they may hold, and what is taken from them. RFC 5246
// section 7.4, RFC 6066 section 3, RFC 5746.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "tls/certificate_key.hpp"
#include "tls/handshake_reader.hpp"
#include "tls/key_schedule.hpp"
#include "tls/suite.hpp"
#include "util/byte_cursor.hpp"
#include "util/secret.hpp"

namespace tq::tls {

inline constexpr size_t kHandshakeHeaderLen = 4;
inline constexpr size_t kMaxServerNameLen = 255;
inline constexpr size_t kMaxClientHelloLen = 160 + kMaxServerNameLen;
inline constexpr size_t kMaxCertificateLen = size_t{1} << 16;  // of the server's own; the others are skipped

// The whole message. An empty name is not sent.
void write_client_hello(ByteWriter& w, std::span<const uint8_t, kRandomLen> client_random,
                        std::span<const uint8_t> server_name);

// Reads the ServerHello and finds the suite that was chosen.
[[nodiscard]] bool read_server_hello(HandshakeReader& in, bool name_was_sent,
                                     std::span<uint8_t, kRandomLen> server_random, const Suite*& suite);

// The server's certificate with its key.
struct ServerKey {
  std::optional<ScratchBuffer> certificate;
  RsaPublicKey key{};  // borrows from it
};

// Reads the Certificate message; the certificates behind the first are passed over.
[[nodiscard]] bool read_certificates(HandshakeReader& in, ServerKey& out);

// Reads the body of a CertificateRequest, whose answer does not depend on it.
[[nodiscard]] bool read_certificate_request(HandshakeReader& in);

}  // namespace tq::tls
