#include "protocol/tcp_transport.h"

#include <gtest/gtest.h>

#include "support/loopback_server.hpp"

namespace {

using namespace test;

constexpr int32_t kFailed = -22003;
const Bytes kRequest = from_hex("70000B501200090007AA27");

// Connected to a server that takes one request, answers and waits for the client's end.
class Connection {
 public:
  Connection(const Bytes& request, const Bytes& answer, int delay_ms = 0)
      : server_([=](const Peer& peer) {
          sleep_ms(delay_ms);
          EXPECT_TRUE(peer.read(request.size()) == request);
          peer.write(answer);
          peer.wait_for_end();
        }),
        cfg_(server_.config()) {
    EXPECT_GE(tq_socket_connect(&cfg_), 0);
  }
  ~Connection() { tq_socket_close(); }

  SessionConfig& config() { return cfg_; }

 private:
  LoopbackServer server_;
  SessionConfig cfg_;
};

TEST(TcpTransport, ResponsesEndWhereTheirLengthSays) {
  const Bytes frame300 = from_hex("71012C") + Bytes(297, 0x5A);
  const struct {
    const char* name;
    int32_t form;
    Bytes sent;
    size_t capacity;
    int32_t result;
  } cases[] = {
      {"three bytes", 0, from_hex("700003"), 64, 3},
      {"five bytes", 1, from_hex("7200000005"), 64, 5},
      {"length below the header", 0, from_hex("700000"), 64, 3},
      {"many bytes", 0, frame300, 300, 300},
      {"long form", 1, from_hex("720000000A0102030405"), 64, 10},
      {"bytes beyond", 0, from_hex("7000040102030405"), 64, 8},
      {"other header", 0, from_hex("6F0064"), 64, 3},
      {"other header", 0, from_hex("730064"), 64, 3},
      {"other header, long", 1, from_hex("4800000064"), 64, 5},
      {"too long for the room", 0, frame300, 299, kFailed},
      {"room for less than a length", 0, from_hex("700003"), 2, kFailed},
  };
  for (const auto& c : cases) {
    Connection server(kRequest, c.sent);
    Bytes out(c.capacity, 0xEE);
    EXPECT_EQ(
        tcp_send_and_recv(&server.config(), kRequest.data(), len(kRequest), out.data(), len(out), c.form),
        c.result)
        << c.name;
    if (c.result > 0) {
      EXPECT_EQ(hex(out), hex(c.sent + Bytes(c.capacity - c.sent.size()))) << c.name;
    }
  }
}

TEST(TcpTransport, ALargeRequestIsSentWhole) {
  std::mt19937 generator(1);
  Bytes shared = random_bytes(generator, 8 << 20);
  Connection server(shared, from_hex("700003"), 50);
  EXPECT_EQ(tcp_send_and_recv(&server.config(), shared.data(), len(shared), shared.data(), len(shared), 0),
            3);
}

TEST(TcpTransport, HalvesOfAnExchange) {
  Bytes out(64);
  EXPECT_EQ(tq_socket_send(nullptr, kRequest.data(), len(kRequest)), 0);  // not connected
  EXPECT_EQ(tq_socket_recv(nullptr, out.data(), 64, TQ_SHORT_FRAME), 0);
  const Connection server(kRequest, from_hex("700003") + kRequest);
  EXPECT_EQ(tq_socket_send(nullptr, kRequest.data(), len(kRequest)), static_cast<int32_t>(kRequest.size()));
  EXPECT_EQ(tq_socket_recv(nullptr, out.data(), 3, TQ_SHORT_FRAME), 3);
  EXPECT_EQ(tq_socket_recv(nullptr, out.data(), 64, TQ_SHORT_FRAME), static_cast<int32_t>(kRequest.size()));
  EXPECT_EQ(exact_copy(out, kRequest.size()), kRequest);
}

TEST(TcpTransport, OnlyLogLevelTwoShowsTheFrames) {
  for (const uint8_t level : {uint8_t{1}, uint8_t{2}}) {
    Connection server(kRequest, from_hex("7000040A"));
    server.config().logLevel = level;
    Bytes out(64);
    testing::internal::CaptureStdout();
    EXPECT_EQ(tcp_send_and_recv(&server.config(), kRequest.data(), len(kRequest), out.data(), len(out), 0),
              4);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              level == 2 ? "Send SR: 70000B501200090007AA27\nRecv SR: 7000040A\n" : "");
  }
}

}  // namespace
