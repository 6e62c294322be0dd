#include "net/wait.hpp"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <climits>

namespace tq::net {
namespace {

constexpr int64_t kBetweenLooksMs = 50;

// The innermost of this thread.
constinit thread_local const WaitsEndWhen* t_ends = nullptr;

}  // namespace

WaitsEndWhen::WaitsEndWhen(Ended has_ended, void* context)
    : ended_(has_ended), context_(context), outer_(t_ends) {
  t_ends = this;
}

WaitsEndWhen::~WaitsEndWhen() {
  t_ends = outer_;
}

bool wait_ready(int fd, short events, const Deadline& deadline, int wake_fd) {
  const int64_t longest_ms = t_ends == nullptr ? INT_MAX : kBetweenLooksMs;
  for (;;) {
    const int64_t left_ms = deadline.remaining_ms();
    if (left_ms == 0 || (t_ends != nullptr && t_ends->ended())) return false;
    pollfd watched[] = {{fd, events, 0}, {wake_fd, POLLIN, 0}};
    const int num_ready = poll(watched, 2, static_cast<int>(std::min(left_ms, longest_ms)));
    if (num_ready > 0) return watched[0].revents != 0;
    if (num_ready < 0 && errno != EINTR) return false;
  }
}

}  // namespace tq::net
