// What the workers of both kinds of read have in common: their state, the loop over the answers, the result.
#pragma once

#include <cstdint>

#include "core/config/host_clock.hpp"
#include "core/session/outcome.hpp"
#include "core/session/read_session.hpp"

namespace tq {

class CardRead {
 public:
  CardRead(const CardRead&) = delete;
  CardRead& operator=(const CardRead&) = delete;

 protected:
  explicit CardRead(ReadSession& session) : session_(session), cfg_(session.config()) {}
  virtual ~CardRead();

  // Takes the start time and clears what the configuration holds of an earlier read.
  void begin();

  // Handles one answer after the other until the read is over or has been stopped.
  Outcome relay_answers();
  virtual Outcome handle_answer() = 0;

  bool answer_missing() const { return answer_.status == -1 || answer_.length == 0; }

  // Shows the answer in the log when commands and answers are to be seen there.
  void log_answer() const;

  // Hands `result_` to the application, unless the read has been superseded.
  void deliver_result(int32_t code);

  bool timing_wanted() const { return cfg_.monitorTiming != 0; }
  int64_t now() const { return host_time(cfg_); }

  ReadSession& session_;
  SessionConfig& cfg_;
  CardAnswer answer_;
  info_data result_{};
  int64_t start_time_ = 0;
  uint32_t delay_ = 0;  // milliseconds that the server authentication took
};

}  // namespace tq
