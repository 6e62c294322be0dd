#include "core/session/read_session.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

using tq::ReadKind;

// The worker tells how far it is, and is held back until it may go on. Static: a body is a plain function.
enum Stage { kNotBegun, kBegun, kMayGoOn, kAccepting, kEnded };
std::atomic<Stage> g_stage;
std::atomic<uint64_t> g_number;   // of the read
std::atomic<bool> g_lost;         // it has been told that its command is lost
std::atomic<uint32_t> g_serials;  // of the answers, one decimal digit each

template <typename Condition>
void wait_for(Condition condition) {
  for (int ms = 0; !condition() && ms < 5000; ++ms) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_TRUE(condition());
}
void wait_for_stage(Stage stage) {
  wait_for([stage] { return g_stage >= stage; });
}

// Collects answers up to one with the number 9. The library is built without run-time type information, which
// the check of virtual calls would need.
__attribute__((no_sanitize("vptr"))) void collect_answers(tq::ReadSession& session) {
  g_number = tq::current_read_number();
  g_stage = kBegun;
  wait_for_stage(kMayGoOn);
  session.accept_answers();
  g_stage = kAccepting;
  tq::CardAnswer answer;
  while (session.wait_for_answer(answer) && answer.serial != 9) g_serials = g_serials * 10 + answer.serial;
  g_lost = session.command_lost();
}

TEST(ReadSession, AnswersOfNoReadAreDropped) {
  const SessionConfig cfg{};
  const SessionConfig other{};
  const auto deliver = [&](uint8_t serial, const SessionConfig* owner,
                           ReadKind kind = ReadKind::kIdentityCard) {
    const uint8_t data[] = {0x90, 0x00};
    tq::deliver_answer(kind, owner, data, serial, 0);
  };
  tq::set_read_end_hook([](const SessionConfig*) { g_stage = kEnded; });
  for (int again = 0; again < 3; ++again) {
    g_serials = 0;
    g_stage = kNotBegun;
    deliver(1, &cfg);  // before any read, and after the first
    ASSERT_EQ(tq::start_read(ReadKind::kIdentityCard, cfg, collect_answers, [] {}), TQ_OK);
    wait_for_stage(kBegun);
    deliver(2, &cfg);  // it has asked the card nothing yet
    g_stage = kMayGoOn;
    wait_for_stage(kAccepting);
    deliver(3, &other);
    deliver(4, &cfg, ReadKind::kPassport);
    deliver(5, &cfg);
    deliver(6, nullptr);  // whoever runs
    tq::abandon_read(&other, [] { ADD_FAILURE(); });
    tq::cancel_read(ReadKind::kIdentityCard, &other, [] { ADD_FAILURE(); });
    tq::cancel_read(ReadKind::kPassport, nullptr, [] { ADD_FAILURE(); });
    tq::lose_command(g_number - 1);
    EXPECT_TRUE(tq::read_in_progress(&cfg));
    wait_for([] { return g_serials == 56; });
    if (again == 0) deliver(9, &cfg);
    if (again == 1) tq::abandon_read(&cfg, [] {});
    if (again == 2) tq::lose_command(g_number);
    wait_for_stage(kEnded);
    EXPECT_EQ(g_lost, again == 2);
  }
  tq::set_read_end_hook(nullptr);
}

}  // namespace
