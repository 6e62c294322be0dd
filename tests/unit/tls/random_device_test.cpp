#include "tls/random_device.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "support/bytes.hpp"

namespace {

using test::Bytes;

// A file with so many bytes of 5A, in the place of the device.
class Device {
 public:
  explicit Device(size_t len) {
    const int fd = mkstemp(path_.data());
    const Bytes bytes(len, 0x5A);
    EXPECT_EQ(write(fd, bytes.data(), len), static_cast<ssize_t>(len));
    close(fd);
  }
  ~Device() { unlink(path_.c_str()); }
  const char* path() const { return path_.c_str(); }

 private:
  std::string path_ = "/tmp/random-device-XXXXXX";
};

// Too few bytes are none, and what had come is wiped.
TEST(RandomDevice, EndsShort) {
  struct Case {
    size_t has;
    size_t wanted;
    bool good;
  };
  for (const Case& c : {Case{32, 32, true},
                        {1000, 1000, true},
                        {257, 256, true},
                        {31, 32, false},
                        {0, 32, false},
                        {256, 257, false},
                        {256, 512, false},
                        {999, 1000, false},
                        {0, 0, true}}) {
    const Device device(c.has);
    Bytes out(c.wanted, 0xEE);
    EXPECT_EQ(tq::tls::RandomDevice(device.path()).fill(out), c.good) << c.wanted << " of " << c.has;
    EXPECT_EQ(out, Bytes(c.wanted, c.good ? 0x5A : 0)) << c.wanted << " of " << c.has;
  }
}

TEST(RandomDevice, NotThereOrNotReadable) {
  for (const char* path : {"/dev/there-is-none", "/dev/null", "/tmp", ""}) {
    Bytes out(32, 0xEE);
    EXPECT_FALSE(tq::tls::RandomDevice(path).fill(out)) << path;
    EXPECT_EQ(out, Bytes(32)) << path;
  }
}

TEST(RandomDevice, TheSystemsOwn) {
  Bytes once(2000);
  Bytes again(2000);
  ASSERT_TRUE(tq::tls::RandomDevice().fill(once));
  ASSERT_TRUE(tq::tls::RandomDevice().fill(again));
  EXPECT_NE(once, again);
  EXPECT_NE(Bytes(once.end() - 32, once.end()), Bytes(32)) << "filled to the end";
}

}  // namespace
