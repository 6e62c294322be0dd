#include "tls/random_device.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "support/bytes.hpp"

namespace {

using test::Bytes;

// Too few bytes are none, and what had come is wiped. In the place of the device: a file with so many bytes
// of 5A.
TEST(RandomDevice, EndsShort) {
  const struct {
    size_t has, wanted;
    bool good;
  } cases[] = {{32, 32, true},    {1000, 1000, true}, {257, 256, true},   {31, 32, false}, {0, 32, false},
               {256, 257, false}, {256, 512, false},  {999, 1000, false}, {0, 0, true}};
  for (const auto& c : cases) {
    std::string path = "/tmp/random-device-XXXXXX";
    const int fd = mkstemp(path.data());
    ASSERT_EQ(write(fd, Bytes(c.has, 0x5A).data(), c.has), static_cast<ssize_t>(c.has));
    close(fd);
    Bytes out(c.wanted, 0xEE);
    EXPECT_EQ(tq::tls::RandomDevice(path.c_str()).fill(out), c.good) << c.wanted << " of " << c.has;
    EXPECT_EQ(out, Bytes(c.wanted, c.good ? 0x5A : 0)) << c.wanted << " of " << c.has;
    unlink(path.c_str());
  }
}

TEST(RandomDevice, NotReadableAndTheSystemsOwn) {
  for (const char* path : {"/dev/there-is-none", "/dev/null", "/tmp", ""}) {
    Bytes out(32, 0xEE);
    EXPECT_FALSE(tq::tls::RandomDevice(path).fill(out)) << path;
    EXPECT_EQ(out, Bytes(32)) << path;
  }
  Bytes once(2000);
  Bytes again(2000);
  ASSERT_TRUE(tq::tls::RandomDevice().fill(once) && tq::tls::RandomDevice().fill(again));
  EXPECT_NE(once, again);
  EXPECT_NE(Bytes(once.end() - 32, once.end()), Bytes(32)) << "filled to the end";
}

}  // namespace
