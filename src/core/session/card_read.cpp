#include "core/session/card_read.hpp"

#include <algorithm>
#include <iterator>

#include "core/config/business_id.hpp"
#include "util/diagnostics.hpp"
#include "util/secret.hpp"

namespace tq {

CardRead::~CardRead() {
  if (result_.data != nullptr) wipe(result_.data, static_cast<size_t>(result_.length));
  tq_mem_free(result_.data);
  wipe(&answer_, sizeof answer_);
}

void CardRead::begin() {
  start_time_ = now();
  disown_business_id(cfg_);
  std::fill(std::begin(cfg_.lastCommand), std::end(cfg_.lastCommand), uint8_t{0});
  cfg_.lastCommandLength = 0;
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

void CardRead::deliver_result(int32_t code) {
  result_.code = code;
  if (session_.superseded()) return;
  cfg_.resultCallback(&result_);
  result_ = {};  // the data are the receiver's now
}

}  // namespace tq
