#include "tls/socket_channel.hpp"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>

#include "support/bytes.hpp"

namespace {

// A peer that always has one more byte, or always takes one more, does not outrun the limit.
TEST(SocketChannel, TheLimitHoldsWhenNothingWaits) {
  std::array<int, 2> ends{};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
  const test::Bytes bytes(100, 0x5A);
  ASSERT_EQ(write(ends[1], bytes.data(), bytes.size()), 100);
  tq::tls::SocketChannel channel;
  channel.set_fd(ends[0]);
  test::Bytes out(10);
  EXPECT_EQ(channel.read(out), 10);
  EXPECT_TRUE(channel.write(out));
  channel.set_time_limit(0);
  EXPECT_EQ(channel.read(out), -1);
  EXPECT_FALSE(channel.write(out));
  channel.set_time_limit(-1);
  EXPECT_EQ(channel.read(out), 10);
  channel.hurry(0);
  EXPECT_EQ(channel.read(out), -1);
  channel.hurry(5000);
  EXPECT_EQ(channel.read(out), -1) << "the sooner limit stays";
  close(ends[0]);
  close(ends[1]);
}

TEST(SocketChannel, NoSocket) {
  tq::tls::SocketChannel channel;
  test::Bytes out(10);
  EXPECT_EQ(channel.read(out), -1);
  EXPECT_FALSE(channel.write(out));
  channel.write_without_waiting(out);
}

}  // namespace
