// One TLS connection of a client, over any ByteChannel. What the calls of ssl.h do.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "tls/environment.hpp"
#include "tls/handshake_messages.hpp"
#include "tls/handshake_reader.hpp"
#include "tls/record_layer.hpp"

namespace tq::tls {

inline constexpr int64_t kShutdownLimitMs = 5000;

class Client {
 public:
  Client(ByteChannel& channel, RandomSource& random)
      : channel_(channel), random_(random), records_(channel, random), handshake_(records_) {}

  // As SSL_set_tlsext_host_name.
  bool set_server_name(std::string_view name);

  bool connect();

  // All of it, or false.
  bool write(std::span<const uint8_t> bytes);

  // Up to out.size() bytes (not 0); 0 at close_notify, -1 on an error.
  ptrdiff_t read(std::span<uint8_t> out);

  // As SSL_shutdown.
  int shutdown();

 private:
  enum class State : uint8_t { kNew, kConnected, kClosing };

  bool open() const { return state_ != State::kNew && !records_.failed(); }
  bool answer_hello_request();

  ByteChannel& channel_;
  RandomSource& random_;
  RecordLayer records_;
  HandshakeReader handshake_;
  State state_ = State::kNew;
  bool renegotiation_refused_ = false;
  size_t server_name_len_ = 0;
  std::array<uint8_t, kMaxServerNameLen> server_name_{};
};

}  // namespace tq::tls
