#include "core/session/read_session.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "support/bytes.hpp"

namespace {

using std::chrono::milliseconds;
using tq::ReadKind;
using tq::ReadSession;

template <typename Condition>
bool eventually(Condition condition) {
  const auto limit = std::chrono::steady_clock::now() + milliseconds(5000);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > limit) return false;
    std::this_thread::sleep_for(milliseconds(1));
  }
  return true;
}

// What the workers of a test tell, and what holds them back. Static: a body is a plain function.
std::atomic<int> g_working, g_most_working, g_began, g_ended, g_superseded, g_interrupted, g_got, g_hooks;
std::atomic<bool> g_hold;
std::atomic<uint32_t> g_serials;  // of the answers, one decimal digit each
std::atomic<bool> g_own_copy;

// The library is built without run-time type information, which the check of virtual calls would need.
#define NO_VPTR_CHECK __attribute__((no_sanitize("vptr")))

NO_VPTR_CHECK void enter(ReadSession& session) {
  const int at_work = ++g_working;
  if (at_work > g_most_working) g_most_working = at_work;
  if (session.config().port == 7) g_own_copy = true;
  session.accept_answers();
  ++g_began;
}

NO_VPTR_CHECK void leave(const ReadSession& session) {
  if (session.superseded()) ++g_superseded;
  --g_working;
  ++g_ended;
}

NO_VPTR_CHECK void collect_answers(ReadSession& session) {
  enter(session);
  while (g_hold && !session.superseded()) std::this_thread::sleep_for(milliseconds(1));
  tq::CardAnswer answer;
  while (session.wait_for_answer(answer) && answer.serial != 9) {
    g_serials = g_serials * 10 + answer.serial;
    ++g_got;
  }
  leave(session);
}

NO_VPTR_CHECK void slow_to_release(ReadSession& session) {
  enter(session);
  tq::CardAnswer answer;
  while (session.wait_for_answer(answer)) {
  }
  std::this_thread::sleep_for(milliseconds(50));
  leave(session);
}

NO_VPTR_CHECK void until_cancelled(ReadSession& session) {
  enter(session);
  tq::CardAnswer answer;
  while (!session.cancelled() && session.wait_for_answer(answer)) {
  }
  leave(session);
}

void interrupt() {
  ++g_interrupted;
}

class ReadSessionTest : public testing::Test {
 protected:
  void SetUp() override {
    for (auto* count :
         {&g_working, &g_most_working, &g_began, &g_ended, &g_superseded, &g_interrupted, &g_got, &g_hooks}) {
      *count = 0;
    }
    g_hold = g_own_copy = false;
    g_serials = 0;
    tq::set_read_end_hook([](const SessionConfig*) { ++g_hooks; });
  }
  void TearDown() override {
    tq::abandon_read(&cfg_, interrupt);
    EXPECT_TRUE(eventually([&] { return g_hooks == started_; }));
    EXPECT_EQ(g_most_working, started_ == 0 ? 0 : 1);
    tq::set_read_end_hook(nullptr);
  }

  void start(tq::ReadBody body, ReadKind kind = ReadKind::kIdentityCard) {
    ASSERT_EQ(tq::start_read(kind, cfg_, body, interrupt), TQ_OK);
    ++started_;
  }
  void start_and_wait(tq::ReadBody body, ReadKind kind = ReadKind::kIdentityCard) {
    const int before = g_began;
    start(body, kind);
    ASSERT_TRUE(eventually([&] { return g_began > before; }));
  }
  void deliver(uint8_t serial, ReadKind kind = ReadKind::kIdentityCard) { deliver_for(&cfg_, serial, kind); }
  static void deliver_for(const SessionConfig* owner, uint8_t serial,
                          ReadKind kind = ReadKind::kIdentityCard) {
    const test::Bytes data = {0x90, 0x00};
    tq::deliver_answer(kind, owner, data, serial, 0);
  }

  SessionConfig cfg_{};
  int started_ = 0;
};

TEST_F(ReadSessionTest, FourAnswersWaitTheRestIsDropped) {
  g_hold = true;
  start_and_wait(collect_answers);
  for (uint8_t serial = 1; serial <= 6; ++serial) deliver(serial);
  g_hold = false;
  EXPECT_TRUE(eventually([] { return g_got == 4; }));
  deliver(8);
  EXPECT_TRUE(eventually([] { return g_got == 5; }));
  EXPECT_EQ(g_serials, 12348U);
  deliver(9);
  EXPECT_TRUE(eventually([] { return g_ended == 1; }));
}

TEST_F(ReadSessionTest, AnswersOfNoReadAreDropped) {
  deliver(1);  // before any read
  start_and_wait(collect_answers);
  deliver(9);
  ASSERT_TRUE(eventually([&] { return g_hooks == 1; }));
  deliver(2);  // late
  start_and_wait(collect_answers);
  const SessionConfig other{};
  deliver_for(&other, 5);
  deliver(6, ReadKind::kPassport);
  deliver(3);
  deliver_for(nullptr, 4);  // whoever runs
  EXPECT_TRUE(eventually([] { return g_got == 2; }));
  EXPECT_EQ(g_serials, 34U);
}

TEST_F(ReadSessionTest, AnswersBeforeTheFirstCommandAreDropped) {
  g_hold = true;
  start([](ReadSession& session) {
    ++g_working;
    while (g_hold) std::this_thread::sleep_for(milliseconds(1));
    --g_working;
    collect_answers(session);
  });
  EXPECT_TRUE(eventually([] { return g_working == 1; }));
  deliver(1);  // the read has begun, but has asked the card nothing yet
  g_hold = false;
  EXPECT_TRUE(eventually([] { return g_began == 1; }));
  deliver(2);
  EXPECT_TRUE(eventually([] { return g_got == 1; }));
  EXPECT_EQ(g_serials, 2U);
}

TEST_F(ReadSessionTest, ANewReadSupersedesTheOldOne) {
  start_and_wait(slow_to_release);
  const auto before = std::chrono::steady_clock::now();
  for (int i = 0; i < 5; ++i)
    start(slow_to_release, i % 2 == 0 ? ReadKind::kPassport : ReadKind::kIdentityCard);
  start(collect_answers);
  EXPECT_LT(std::chrono::steady_clock::now() - before, milliseconds(40));  // starting never waits
  EXPECT_TRUE(eventually([&] { return g_hooks == started_ - 1; }));
  EXPECT_TRUE(eventually([] { return g_working == 1; }));
  EXPECT_GE(g_interrupted, 1);
  EXPECT_EQ(g_superseded, g_ended);  // all but the newest, as far as they began at all
  deliver(4);
  EXPECT_TRUE(eventually([] { return g_got == 1; }));
}

TEST_F(ReadSessionTest, EachReadHasItsOwnCopyOfTheRecord) {
  cfg_.port = 7;
  start(collect_answers);
  cfg_.port = 8;
  EXPECT_TRUE(eventually([] { return g_began == 1; }));
  EXPECT_TRUE(g_own_copy);
}

TEST_F(ReadSessionTest, CancelIsSeenAfterTheNextAnswer) {
  EXPECT_FALSE(tq::read_in_progress(&cfg_));
  start_and_wait(until_cancelled);
  EXPECT_TRUE(tq::read_in_progress(&cfg_));
  EXPECT_EQ(tq::current_read_owner(), nullptr);
  tq::cancel_read(ReadKind::kPassport);
  EXPECT_TRUE(tq::read_in_progress(&cfg_));
  tq::cancel_read(ReadKind::kIdentityCard);
  EXPECT_FALSE(tq::read_in_progress(&cfg_));
  std::this_thread::sleep_for(milliseconds(20));
  EXPECT_EQ(g_ended, 0);  // it goes on waiting for its card
  deliver(1);
  EXPECT_TRUE(eventually([] { return g_ended == 1; }));
  EXPECT_EQ(g_superseded, 0);
}

TEST_F(ReadSessionTest, AbandonEndsOnlyTheReadOfItsOwner) {
  start_and_wait(collect_answers);
  const SessionConfig other{};
  tq::abandon_read(&other, interrupt);
  EXPECT_TRUE(tq::read_in_progress(&cfg_));
  tq::abandon_read(&cfg_, interrupt);
  EXPECT_FALSE(tq::read_in_progress(&cfg_));
  EXPECT_TRUE(eventually([] { return g_ended == 1; }));
  EXPECT_EQ(g_superseded, 1);
  EXPECT_EQ(g_interrupted, 1);
}

}  // namespace
