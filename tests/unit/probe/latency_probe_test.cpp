#include "probe/latency_probe.h"

#include <gtest/gtest.h>

#include <string>

#include "support/descriptors.hpp"
#include "support/loopback_server.hpp"

namespace {

using namespace test;

constexpr int32_t kNotConnected = -20003;
constexpr int32_t kFailed = -20004;

// Answers each greeting; gives what the client sent until it closed.
struct Echo {
  std::string received;
  LoopbackServer server;

  explicit Echo(int delay_ms, const Bytes& answer = from_text("HELLWORD"), int num_answers = 100)
      : server([this, delay_ms, answer, num_answers](const Peer& peer) {
          for (int i = 0; i < num_answers; ++i) {
            const Bytes greeting = peer.read(8);
            received.append(greeting.begin(), greeting.end());
            if (greeting.size() < 8) return;
            sleep_ms(delay_ms);
            if (!peer.offer(answer)) return;
          }
        }) {}
  int32_t probe(int32_t count) { return tq_check_socket_info(count, "127.0.0.1", server.port()); }
};

TEST(LatencyProbe, RoundsAndTheirAverage) {
  const struct {
    int32_t count;
    int rounds;
  } cases[] = {{1, 1}, {3, 3}, {5, 5}, {0, 5}, {6, 5}, {-1, 5}, {INT32_MAX, 5}, {INT32_MIN, 5}};
  for (const auto& c : cases) {
    std::string received;
    {
      Echo echo(0);
      const int32_t ms = echo.probe(c.count);
      EXPECT_GE(ms, 0);
      EXPECT_LE(ms, 100);
      echo.server.finish();
      received = echo.received;
    }
    std::string expected;
    for (int i = 0; i < c.rounds; ++i) expected += "HELLWORD";
    EXPECT_EQ(received, expected) << c.count;
  }
  Echo slow(60);
  const int32_t ms = slow.probe(3);
  EXPECT_GE(ms, 59);
  EXPECT_LE(ms, 160);
}

TEST(LatencyProbe, AnyAnswerWillDo) {
  EXPECT_GE(Echo(0, {0x00}).probe(3), 0);
  Echo long_answers(0, Bytes(500, 0x55));  // what does not fit is the next round's answer
  EXPECT_GE(long_answers.probe(5), 0);
  EXPECT_GE(tq_check_socket_info(1, "localhost", long_answers.server.port() + 0x70000U), 0)
      << "16 bits of the port count";
}

TEST(LatencyProbe, Failures) {
  const size_t before = num_descriptors();
  {
    LoopbackServer refusing({}, false);
    EXPECT_EQ(tq_check_socket_info(1, "127.0.0.1", refusing.port()), kNotConnected);
    EXPECT_EQ(checkTools_socket_connect("127.0.0.1", refusing.port()), -2);
  }
  for (const char* host : {"no-such-host.invalid", "", "::1", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(tq_check_socket_info(1, host, 1), kFailed);
    EXPECT_EQ(checkTools_socket_connect(host, 1), -1);
  }
  // One answer and then a reset: the rounds before it do not count, and no SIGPIPE comes.
  LoopbackServer resetting([](const Peer& peer) {
    peer.read(8);
    peer.write(from_text("x"));
    const linger reset = {1, 0};
    setsockopt(peer.fd(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    peer.read(3);
  });
  EXPECT_EQ(tq_check_socket_info(5, "127.0.0.1", resetting.port()), kFailed);
  // An end counts as an answer; what comes of the later rounds is up to the system.
  LoopbackServer ending([](const Peer& peer) { peer.read(8); });
  EXPECT_GE(tq_check_socket_info(1, "127.0.0.1", ending.port()), 0);
  for (int i = 0; i < 20; ++i) {
    const int32_t rc = tq_check_socket_info(5, "127.0.0.1", ending.port());
    EXPECT_TRUE(rc == kFailed || rc >= 0) << rc;
  }
  EXPECT_EQ(num_descriptors(), before + 2) << "of the two servers";
}

TEST(LatencyProbe, SilenceEndsAfterFiveSeconds) {
  LoopbackServer silent([](const Peer& peer) {
    peer.read(8);
    peer.wait_for_end();
  });
  const int64_t began = steady_ms();
  EXPECT_EQ(tq_check_socket_info(2, "127.0.0.1", silent.port()), kFailed);
  EXPECT_GE(steady_ms() - began, 4990);
  EXPECT_LT(steady_ms() - began, 6500);
}

TEST(LatencyProbe, TheWrappersReturnWhatTheSystemSays) {
  Echo echo(0, from_text("abc"), 1);
  const int32_t fd = checkTools_socket_connect("127.0.0.1", echo.server.port());
  ASSERT_GE(fd, 0);
  EXPECT_EQ(checkTools_socket_send(fd, "HELLWORD", 8), 8);
  char answer[8];
  EXPECT_EQ(checkTools_socket_recv(fd, answer, 2), 2);
  EXPECT_EQ(checkTools_socket_recv(fd, answer, 8), 1);
  EXPECT_EQ(answer[0], 'c');
  EXPECT_EQ(checkTools_socket_recv(fd, answer, 8), 0);
  checkTools_socket_close(fd);
  EXPECT_EQ(checkTools_socket_send(fd, "x", 1), -1);
  EXPECT_EQ(checkTools_socket_recv(fd, answer, 1), -1);
}

}  // namespace
