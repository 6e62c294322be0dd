// What the two kinds of read have in common: authentication to the decode server, the loop over the card's
// answers, the times, the report and the result.
#pragma once

#include <cstdint>
#include <optional>

#include "core/config/host_clock.hpp"
#include "core/session/outcome.hpp"
#include "core/session/read_session.hpp"
#include "protocol/frames.hpp"
#include "protocol/monitor_report.hpp"
#include "util/secret.hpp"

namespace tq {

// Times on the application's clock; it stands still unless the server wants them.
class Stopwatch {
 public:
  explicit Stopwatch(const SessionConfig& cfg) : cfg_(cfg) {}

  void start() {
    if (wanted()) start_ = host_time(cfg_);
  }
  // Milliseconds since the start, when the clock has gone forward since.
  std::optional<uint32_t> elapsed_ms() const {
    if (!wanted()) return std::nullopt;
    const int64_t now = host_time(cfg_);
    if (now <= start_) return std::nullopt;
    return static_cast<uint32_t>(elapsed(now, start_));
  }
  bool wanted() const { return cfg_.monitorTiming != 0; }

 private:
  const SessionConfig& cfg_;
  int64_t start_ = 0;
};

class CardRead {
 public:
  CardRead(const CardRead&) = delete;
  CardRead& operator=(const CardRead&) = delete;

  // Authenticates to the server, drives the card and reports.
  void run();

 protected:
  explicit CardRead(ReadSession& session) : session_(session), cfg_(session.config()), stopwatch_(cfg_) {}
  virtual ~CardRead();

  virtual void send_first_command() = 0;

  // Handles `answer_`. An answer leads to exactly one command, or to the end of the read.
  virtual Outcome handle_answer() = 0;

  // Adds what only this kind of read has to tell.
  virtual void complete_report(MonitorReport& report) const = 0;

  bool answer_missing() const { return answer_.status == -1 || answer_.length == 0; }

  // Shows the answer in the log when commands and answers are to be seen there.
  void log_answer() const;

  int64_t now() const { return host_time(cfg_); }

  // Returns TQ_OK or the code of a failed connect; a stopped read connects to nothing.
  int32_t connect();
  void disconnect();

  ReadSession& session_;
  SessionConfig& cfg_;
  CardAnswer answer_;
  Stopwatch stopwatch_;
  Secret<kWorkKeyLength> work_key_;
  info_data result_{};

 private:
  Outcome relay_answers();
  void report(int32_t final_result);
  void deliver_result(int32_t code);

  int64_t start_time_ = 0;
  uint32_t delay_ = 0;  // milliseconds that the server authentication took
  bool first_connection_ =
      false;  // the one of the authentication is open; any other makes room for the report
};

}  // namespace tq
