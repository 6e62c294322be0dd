// The one place where network code sleeps.
#pragma once

#include "net/deadline.hpp"

namespace tq::net {

// Sleeps until `fd` is ready for one of the events of poll(2). False when first the deadline has passed,
// `wake_fd` has become readable, or the thread's waits have ended (WaitsEndWhen). Either descriptor may be
// -1.
[[nodiscard]] bool wait_ready(int fd, short events, const Deadline& deadline, int wake_fd = -1);

// While it lives, the waits of its thread end soon after `has_ended` has become true. For what can only be
// asked, from the waiting thread: nobody tells a thread that its JavaScript environment is being ended.
class WaitsEndWhen {
 public:
  using Ended = bool (*)(void* context);

  WaitsEndWhen(Ended has_ended, void* context);
  ~WaitsEndWhen();
  WaitsEndWhen(const WaitsEndWhen&) = delete;
  WaitsEndWhen& operator=(const WaitsEndWhen&) = delete;

  bool ended() const { return ended_(context_); }

 private:
  Ended ended_;
  void* context_;
  const WaitsEndWhen* outer_;
};

}  // namespace tq::net
