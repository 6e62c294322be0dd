// Finding a server that the application names, and connecting to it over TCP and IPv4.
#pragma once

#include <netinet/in.h>

#include <cstdint>

#include "net/deadline.hpp"
#include "net/descriptor.hpp"

namespace tq::net {

inline constexpr int64_t kSocketLimitMs = 5000;  // for connecting, sending and receiving, each

// The first IPv4 address of a name or of a dotted address. False when there is none. Blocks as long as the
// system's resolver does.
[[nodiscard]] bool resolve(const char* host, uint16_t port, sockaddr_in& out);

// A non-blocking TCP socket; none when the system gives none.
[[nodiscard]] Descriptor open_socket();

// One try on a fresh socket. False when the server refuses, and when wait_ready ends before it has answered.
[[nodiscard]] bool connect_once(int fd, const sockaddr_in& server, const Deadline& deadline,
                                int wake_fd = -1);

enum class Connected : uint8_t { kYes, kNoSocket /* no such name, or no socket */, kNo };

// Gives a connected non-blocking socket whose SO_RCVTIMEO and SO_SNDTIMEO are kSocketLimitMs, for those who
// make it blocking or look at them. Connecting takes kSocketLimitMs at most and ends no later than
// `deadline`.
[[nodiscard]] Connected connect_to(const char* host, uint16_t port, const Deadline& deadline,
                                   Descriptor& out);

}  // namespace tq::net
