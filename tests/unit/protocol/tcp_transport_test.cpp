#include "protocol/tcp_transport.h"

#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <ctime>
#include <random>

#include "protocol/loopback_server.hpp"
#include "protocol/server_peer.hpp"

namespace {

using namespace test;

constexpr int32_t kFailed = -22003;
const Bytes kRequest = from_hex("70000B501200090007AA27");

int64_t processor_ms() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return t.tv_sec * 1000 + t.tv_nsec / 1'000'000;
}

size_t num_descriptors() {
  DIR* dir = opendir("/proc/self/fd");
  size_t count = 0;
  while (readdir(dir) != nullptr) ++count;
  closedir(dir);
  return count;
}

int32_t send_request(const SessionConfig& cfg, Bytes& out, uint32_t capacity = 2048,
                     int32_t form = TQ_SHORT_FRAME) {
  out.assign(capacity, 0xEE);
  return tcp_send_and_recv(&cfg, kRequest.data(), static_cast<uint32_t>(kRequest.size()), out.data(),
                           capacity, form);
}

// Closes the connection again and again until it goes out of scope, as an impatient application would.
class Closer {
 public:
  explicit Closer(int after_ms)
      : thread_([this, after_ms] {
          sleep_ms(after_ms);
          closed_at_ = steady_ms();
          while (!done_) {
            tq_socket_close();
            sleep_ms(1);
          }
        }) {}
  ~Closer() {
    done_ = true;
    thread_.join();
  }
  int64_t closed_at() const { return closed_at_; }

 private:
  std::atomic<bool> done_{false};
  std::atomic<int64_t> closed_at_{0};
  std::thread thread_;
};

class TcpTransport : public testing::Test {
 protected:
  void TearDown() override { tq_socket_close(); }
};

TEST_F(TcpTransport, ResponsesEndWhereTheirLengthSays) {
  Bytes frame300 = from_hex("71012C") + Bytes(297, 0x5A);
  const struct {
    const char* name;
    int32_t form;
    Bytes sent;
    uint32_t capacity;
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
    LoopbackServer server([&](const Peer& peer) {
      EXPECT_EQ(hex(peer.read(kRequest.size())), hex(kRequest));
      peer.write(c.sent);
      peer.wait_for_end();
    });
    const SessionConfig cfg = server.config();
    ASSERT_GE(tq_socket_connect(&cfg), 0);
    Bytes out;
    const int64_t before = steady_ms();
    EXPECT_EQ(send_request(cfg, out, c.capacity, c.form), c.result) << c.name;
    EXPECT_LT(steady_ms() - before, 2000) << c.name;
    if (c.result > 0) {
      EXPECT_EQ(hex(out), hex(c.sent) + std::string(2 * (c.capacity - c.sent.size()), '0')) << c.name;
    }
    tq_socket_close();
  }
}

TEST_F(TcpTransport, PiecesArePutTogetherAndOneConnectionServesSeveralExchanges) {
  const Bytes frame = from_hex("700020") + Bytes(29, 0xA5);
  LoopbackServer server([&](const Peer& peer) {
    for (const size_t piece : {1, 2, 5, 31}) {
      EXPECT_EQ(hex(peer.read(kRequest.size())), hex(kRequest));
      for (size_t at = 0; at < frame.size(); at += piece) {
        peer.write(Bytes(frame.begin() + static_cast<ptrdiff_t>(at),
                         frame.begin() + static_cast<ptrdiff_t>(std::min(at + piece, frame.size()))));
        sleep_ms(1);
      }
    }
    peer.wait_for_end();
  });
  const SessionConfig cfg = server.config();
  ASSERT_GE(tq_socket_connect(&cfg), 0);
  Bytes out;
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(send_request(cfg, out, 32), 32);
    EXPECT_EQ(hex(out), hex(frame));
  }
  tq_socket_close();
}

TEST_F(TcpTransport, ALargeRequestIsSentWhole) {
  std::mt19937 generator(1);
  const Bytes request = random_bytes(generator, 8 << 20);
  LoopbackServer server([&](const Peer& peer) {
    sleep_ms(50);
    EXPECT_TRUE(peer.read(request.size()) == request);
    peer.write(from_hex("700003"));
    peer.wait_for_end();
  });
  const SessionConfig cfg = server.config();
  ASSERT_GE(tq_socket_connect(&cfg), 0);
  Bytes shared = request;
  const auto n = static_cast<uint32_t>(shared.size());
  EXPECT_EQ(tcp_send_and_recv(&cfg, shared.data(), n, shared.data(), n, TQ_SHORT_FRAME), 3);
  tq_socket_close();
}

TEST_F(TcpTransport, WaitingIsBoundedAndCostsNothing) {
  LoopbackServer silent([](const Peer& peer) {
    peer.read(kRequest.size());
    peer.write(from_hex("7000"));  // less than a length field
    peer.wait_for_end();
  });
  const LoopbackServer refusing({}, false);
  Bytes out;
  const SessionConfig to_silent = silent.config();
  const SessionConfig to_refusing = refusing.config();
  for (const bool connecting : {false, true}) {
    if (!connecting) {
      ASSERT_GE(tq_socket_connect(&to_silent), 0);
    }
    const int64_t before = steady_ms();
    const int64_t used_before = processor_ms();
    EXPECT_EQ(connecting ? tq_socket_connect(&to_refusing) : send_request(to_silent, out),
              connecting ? -1 : kFailed);
    const int64_t elapsed = steady_ms() - before;
    EXPECT_GE(elapsed, 4990) << connecting;
    EXPECT_LT(elapsed, 5500) << connecting;
    EXPECT_LT(processor_ms() - used_before, 50) << connecting;
    tq_socket_close();
  }
  EXPECT_EQ(send_request(to_refusing, out), kFailed);  // nothing moves without a new connect
}

TEST_F(TcpTransport, AServerThatGoesAwayEndsTheExchange) {
  for (const char* sent : {"", "70", "700020AA"}) {
    LoopbackServer server([&](const Peer& peer) {
      peer.read(kRequest.size());
      peer.write(from_hex(sent));
    });
    const SessionConfig cfg = server.config();
    ASSERT_GE(tq_socket_connect(&cfg), 0);
    Bytes out;
    const int64_t before = steady_ms();
    EXPECT_EQ(send_request(cfg, out), kFailed) << sent;
    EXPECT_EQ(send_request(cfg, out), kFailed) << sent;
    EXPECT_LT(steady_ms() - before, 2000);
    tq_socket_close();
  }
}

TEST_F(TcpTransport, ConnectKeepsTryingAServerThatRefusesAtFirst) {
  LoopbackServer server([](const Peer& peer) { peer.wait_for_end(); }, false);
  const SessionConfig cfg = server.config();
  std::thread later([&] {
    sleep_ms(150);
    server.start();
  });
  const int64_t before = steady_ms();
  EXPECT_GE(tq_socket_connect(&cfg), 0);
  EXPECT_GE(steady_ms() - before, 140);
  EXPECT_LT(steady_ms() - before, 2000);
  later.join();
  tq_socket_close();
}

TEST_F(TcpTransport, CloseFromAnotherThreadEndsWhateverWaits) {
  LoopbackServer silent([](const Peer& peer) {
    peer.read(kRequest.size());
    peer.wait_for_end();
  });
  LoopbackServer refusing({}, false);
  // The machine may be busy; the best of several tries tells what the library takes.
  for (const bool connecting : {false, true}) {
    int64_t best = 5000;
    for (int i = 0; i < 10; ++i) {
      const SessionConfig cfg = (connecting ? refusing : silent).config();
      if (!connecting) {
        ASSERT_GE(tq_socket_connect(&cfg), 0);
      }
      const Closer closer(30);
      Bytes out;
      EXPECT_EQ(connecting ? tq_socket_connect(&cfg) : send_request(cfg, out), connecting ? -1 : kFailed);
      best = std::min(best, steady_ms() - closer.closed_at());
    }
    EXPECT_LT(best, 20) << connecting;
  }
}

TEST_F(TcpTransport, DescriptorsDoNotAccumulate) {
  LoopbackServer server([](const Peer& peer) { peer.wait_for_end(); });
  LoopbackServer refusing({}, false);
  SessionConfig nameless = server.config();
  nameless.ip[0] = '\0';
  const auto round = [&] {
    const SessionConfig good = server.config();
    const SessionConfig refused = refusing.config();
    EXPECT_GE(tq_socket_connect(&good), 0);
    EXPECT_GE(tq_socket_connect(&good), 0);  // takes the place of the first
    {
      const Closer closer(2);
      EXPECT_EQ(tq_socket_connect(&refused), -1);
    }
    EXPECT_EQ(tq_socket_connect(&nameless), -1);
    EXPECT_GE(tq_socket_connect(&good), 0);
    tq_socket_close();
    tq_socket_close();
  };
  round();
  sleep_ms(50);  // the server's ends
  const size_t before = num_descriptors();
  for (int i = 0; i < 10; ++i) round();
  sleep_ms(50);
  EXPECT_EQ(num_descriptors(), before);
}

TEST_F(TcpTransport, HalvesOfAnExchange) {
  LoopbackServer server([](const Peer& peer) {
    const Bytes received = peer.read(kRequest.size());
    peer.write(from_hex("700003"));
    peer.write(received);
    peer.wait_for_end();
  });
  const auto n = static_cast<uint32_t>(kRequest.size());
  Bytes out(64);
  EXPECT_EQ(tq_socket_send(nullptr, kRequest.data(), n), 0);  // not connected
  EXPECT_EQ(tq_socket_recv(nullptr, out.data(), 64, TQ_SHORT_FRAME), 0);
  const SessionConfig cfg = server.config();
  ASSERT_GE(tq_socket_connect(&cfg), 0);
  EXPECT_EQ(tq_socket_send(nullptr, kRequest.data(), n), static_cast<int32_t>(n));
  EXPECT_EQ(tq_socket_recv(nullptr, out.data(), 3, TQ_SHORT_FRAME), 3);
  EXPECT_EQ(tq_socket_recv(nullptr, out.data(), 64, TQ_SHORT_FRAME), static_cast<int32_t>(n));
  EXPECT_EQ(hex(out.data(), n), hex(kRequest));
  tq_socket_close();
}

TEST_F(TcpTransport, OnlyLogLevelTwoShowsTheFrames) {
  for (const uint8_t level : std::initializer_list<uint8_t>{1, 2}) {
    LoopbackServer server([](const Peer& peer) {
      peer.read(kRequest.size());
      peer.write(from_hex("7000040A"));
      peer.wait_for_end();
    });
    SessionConfig cfg = server.config();
    cfg.logLevel = level;
    ASSERT_GE(tq_socket_connect(&cfg), 0);
    Bytes out;
    testing::internal::CaptureStdout();
    EXPECT_EQ(send_request(cfg, out), 4);
    const std::string shown = testing::internal::GetCapturedStdout();
    EXPECT_EQ(shown, level == 2 ? "Send SR: 70000B501200090007AA27\nRecv SR: 7000040A\n" : "");
    tq_socket_close();
  }
}

}  // namespace
