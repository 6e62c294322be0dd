// A TCP server on 127.0.0.1 whose every connection is served, one after the other, by the script of the test.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <thread>

#include "core/config/session_config.h"
#include "support/bytes.hpp"

namespace test {

inline void sleep_ms(int ms) {
  std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

// The server's end of one connection.
class Peer {
 public:
  explicit Peer(int fd) : fd_(fd) {}

  int fd() const { return fd_; }

  // Exactly `n` bytes, fewer when the client has gone.
  Bytes read(size_t n) const {
    Bytes bytes(n);
    size_t got = 0;
    while (got < n) {
      const ssize_t count = recv(fd_, bytes.data() + got, n - got, 0);
      if (count <= 0) break;
      got += static_cast<size_t>(count);
    }
    bytes.resize(got);
    return bytes;
  }
  void write(const Bytes& bytes) const {
    if (!bytes.empty()) {
      EXPECT_EQ(send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    }
  }
  // Sleeps until the client closes its end.
  void wait_for_end() const { EXPECT_TRUE(read(1).empty()); }

 private:
  int fd_;
};

class LoopbackServer {
 public:
  using Script = std::function<void(const Peer&)>;

  // Without listening it refuses every connection.
  explicit LoopbackServer(Script script = {}, bool listening = true) : script_(std::move(script)) {
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&address), size), 0);
    EXPECT_EQ(getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &size), 0);
    port_ = ntohs(address.sin_port);
    if (!listening) return;
    EXPECT_EQ(listen(fd_, 16), 0);
    thread_ = std::thread([this] {
      for (int fd = accept(fd_, nullptr, nullptr); fd >= 0; fd = accept(fd_, nullptr, nullptr)) {
        if (script_) script_(Peer(fd));
        close(fd);
      }
    });
  }
  ~LoopbackServer() {
    shutdown(fd_, SHUT_RDWR);  // accepts no more; the client that is being served goes first
    if (thread_.joinable()) thread_.join();
    close(fd_);
  }
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  uint16_t port() const { return port_; }

  SessionConfig config() const {
    SessionConfig cfg{};
    std::strcpy(cfg.ip, "127.0.0.1");
    cfg.port = port_;
    return cfg;
  }

 private:
  Script script_;
  int fd_ = -1;
  uint16_t port_ = 0;
  std::thread thread_;
};

}  // namespace test
