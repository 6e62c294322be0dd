// Edges of the exported functions; rounds, averages and failures are tried through the module.
#include "probe/latency_probe.h"

#include <gtest/gtest.h>

#include "support/loopback_server.hpp"

namespace {

using namespace test;

TEST(LatencyProbe, TheWrappersReturnWhatTheSystemSays) {
  LoopbackServer server([](const Peer& peer) {
    EXPECT_EQ(peer.read(8), from_text("HELLWORD"));
    sleep_ms(50);  // the client's call waits
    peer.write(from_text("abc"));
  });
  EXPECT_EQ(checkTools_socket_connect(nullptr, 1), -1);
  EXPECT_EQ(tq_check_socket_info(1, nullptr, 1), -20004);
  const int32_t fd = checkTools_socket_connect("127.0.0.1", server.port() + 0x70000U);  // 16 bits count
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
  const LoopbackServer refusing({}, false);
  EXPECT_EQ(checkTools_socket_connect("127.0.0.1", refusing.port()), -2);
}

}  // namespace
