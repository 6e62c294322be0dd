// A whole read of an identity card, its decode server and its card in one. Choices: modes and times; which
// allocation fails; which command of the server is answered otherwise, and how; which answer of the card is
// another, and how long it is. The content is what they say instead.
#include "idcard/id_card_read.hpp"
#include "read_application.hpp"

namespace {

using namespace fuzz;

class Application final : public ReadApplication {
 public:
  Application(const uint8_t* data, size_t size) : ReadApplication({data, size}, 0) {
    const uint8_t mode = choices_.next();
    take_failing_allocation();
    const uint8_t spoiled = choices_.next();
    DecodeServer::Plan plan{next_reply(), {}};
    odd_answer_ = choices_.next();
    odd_bytes_ = counted();
    plan.content = bytes_of(choices_.content());
    if (spoiled < server_.card_plans.size()) server_.card_plans[spoiled] = plan;
    if (spoiled == server_.card_plans.size()) server_.plans[0] = plan;
    server_.header = 0x70;
    server_.timing = (mode & 4) != 0;
    server_.refused_connects = mode >> 7;
    clock_step_ = (mode & 8) != 0 ? 70 : 1;
    configure(212, mode >> 1 & 1, 1 + (mode & 1), 1);
  }

  void check_end() const override {
    check_results(ended_silently());
    const bool untouched = g_heap.whole() && server_.all_good() && num_answers_ <= odd_answer_;
    require(!untouched || (code_ == TQ_OK && num_monitors_ == 1));
  }

 private:
  // The one documented end without a word: a READ of file 6011 that succeeds without data.
  bool ended_silently() const {
    return num_answers_ == size_t{odd_answer_} + 1 && serial_ == 8 && num_results_ == 0;
  }

  void take(View command, uint8_t serial) override {
    serial_ = serial;
    command_ = bytes_of(command);
  }
  bool next_answer(tq::CardAnswer& out) override {
    give(num_answers_ == odd_answer_ + size_t{1} ? odd_bytes_ : good_answer(), serial_, out);
    return true;
  }
  Bytes good_answer() const {
    const Bytes success = {0x90, 0x00};
    if (serial_ == 3) return Bytes(32, 0x4D) + success;
    if (serial_ == 4 || serial_ == 5) return Bytes(8, 0xA0) + success;
    if (serial_ == 8 || serial_ == 10 || serial_ == 12) return Bytes(command_.back(), 0xF1) + success;
    return success;
  }

  Bytes command_;
  Bytes odd_bytes_;
  uint8_t odd_answer_ = 0;
  uint8_t serial_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 4096) return 0;
  Application application(data, size);
  run_read<tq::IdCardRead>(application);
  return 0;
}
