#include "protocol/card_read.hpp"

#include <algorithm>
#include <iterator>

#include "core/config/business_id.hpp"
#include "protocol/result_report.hpp"
#include "protocol/server_authentication.hpp"
#include "protocol/tcp_transport.h"
#include "util/diagnostics.hpp"
#include "util/memory.h"
#include "util/system_random.hpp"

namespace tq {

CardRead::~CardRead() {
  release_business_id(cfg_);
  if (result_.data != nullptr) wipe(result_.data, static_cast<size_t>(result_.length));
  tq_mem_free(result_.data);
  wipe(&answer_, sizeof answer_);
}

void CardRead::run() {
  start_time_ = now();
  disown_business_id(cfg_);
  std::fill(std::begin(cfg_.lastCommand), std::end(cfg_.lastCommand), uint8_t{0});
  cfg_.lastCommandLength = 0;
  if (session_.cancelled()) return;
  Secret<1> random;
  if (!system_random(random.bytes())) {  // every key of a read comes from there
    deliver_result(TQ_FAILED);
    return;
  }
  const NewStickCardId stick_card_id(cfg_.stickCardId);
  if (int32_t rc = authenticate(cfg_, work_key_.bytes(), delay_, stick_card_id); rc < 0) {
    deliver_result(rc);
    return;
  }
  first_connection_ = true;
  session_.accept_answers();
  send_first_command();
  const Outcome outcome = relay_answers();
  if (session_.cancelled()) {
    disconnect();
  } else if (!outcome.silent()) {
    report(outcome.code());
  }
}

Outcome CardRead::relay_answers() {
  while (!session_.cancelled() && session_.wait_for_answer(answer_)) {
    const Outcome outcome = handle_answer();
    wipe(&answer_, sizeof answer_);
    if (!outcome.goes_on()) return outcome;
  }
  const bool lost = !session_.cancelled() && session_.command_lost();
  return lost ? Outcome::end_with(TQ_NO_CARD_ANSWER) : Outcome::end_silently();
}

void CardRead::log_answer() const {
  if (cfg_.logLevel == 2) dump(Dump::kAnswer, answer_.bytes());
}

void CardRead::report(int32_t final_result) {
  if (!first_connection_) static_cast<void>(connect());
  MonitorReport report = {.work_key = work_key_.bytes(),
                          .start_time = start_time_,
                          .result = final_result,
                          .delay = delay_,
                          .stick_card_id = cfg_.stickCardId};
  complete_report(report);
  const bool reported = !session_.cancelled() && send_monitor_report(cfg_, report);
  if (final_result < 0) make_business_id_result(cfg_, result_);
  release_business_id(cfg_);
  disconnect();
  if (reported) deliver_result(final_result);
}

void CardRead::deliver_result(int32_t code) {
  result_.code = code;
  if (session_.superseded()) return;
  cfg_.resultCallback(&result_);
  result_ = {};  // the data are the receiver's now
}

int32_t CardRead::connect() {
  if (session_.cancelled()) return TQ_FAILED;
  const int32_t rc = tq_socket_connect(&cfg_);
  return rc < 0 ? rc : int32_t{TQ_OK};
}

void CardRead::disconnect() {
  tq_socket_close();
  first_connection_ = false;
}

}  // namespace tq
