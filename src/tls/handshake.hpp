// The full handshake with RSA key transport: RFC 5246 section 7.3.
#pragma once

#include <cstdint>
#include <span>

#include "tls/environment.hpp"
#include "tls/handshake_reader.hpp"

namespace tq::tls {

// Runs it from the first hello to the server's Finished; both directions are protected then. An empty name is
// not sent. False when it has failed, and the connection with it.
[[nodiscard]] bool run_handshake(RecordLayer& records, HandshakeReader& in, RandomSource& random,
                                 std::span<const uint8_t> server_name);

}  // namespace tq::tls
