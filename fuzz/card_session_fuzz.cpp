// A whole read of an identity card, its decode server and its card in one. Choices: modes and times; which
// allocation fails; which command of the server is answered otherwise, and how; which answer of the card is
// another, and how long it is. The content is what they say instead.
#include "decode_server.hpp"
#include "idcard/id_card_read.hpp"
#include "library_heap.hpp"

namespace {

using namespace fuzz;

constexpr size_t kMostAnswers = 200;

class Application;
Application* g_application = nullptr;

class Application final : public tq::ReadSession {
 public:
  Application(const uint8_t* data, size_t size) : choices_(data, size) {
    const uint8_t mode = choices_.next();
    g_heap = {};
    g_heap.failing = size_t{choices_.next()} << 8;
    g_heap.failing |= choices_.next();
    const uint8_t spoiled = choices_.next();
    DecodeServer::Plan plan;
    plan.reply = choices_.one_of(
        {Reply::kGood, Reply::kNone, Reply::kStatus, Reply::kSealed, Reply::kPayload, Reply::kRaw});
    odd_answer_ = choices_.next();
    const View answer = choices_.take(choices_.next());
    odd_bytes_ = bytes_of(answer);
    plan.content = bytes_of(choices_.content());
    if (spoiled < server_.card_plans.size()) server_.card_plans[spoiled] = plan;
    if (spoiled == server_.card_plans.size()) server_.plans[0] = plan;
    server_.header = 0x70;
    server_.timing = (mode & 4) != 0;
    server_.refused_connects = mode >> 7;
    clock_step_ = (mode & 8) != 0 ? 70 : 1;
    require(share_init(&cfg_, "SPECIMEN0SPECIMEN000", 212, mode >> 1 & 1, 1 + (mode & 1), 1, 0, 268, "SN-1",
                       "", "", "x.y", 3, "127.0.0.1", 1) == 0);
    share_register_card_callback(&cfg_, on_command, this);
    share_register_monitor_callback(&cfg_, on_monitor);
    share_register_timestamp_callback(&cfg_,
                                      [] { return g_application->clock_ += g_application->clock_step_; });
    share_register_result_callback(&cfg_, on_result);
  }

  SessionConfig& config() override { return cfg_; }
  View input() const override { return {}; }
  void accept_answers() override {}
  bool command_lost() const override { return false; }
  bool superseded() const override { return superseded_; }
  bool cancelled() const override { return superseded_; }
  bool wait_for_answer(tq::CardAnswer& out) override {
    const HarnessTime harness;
    require(num_waiting_ == 1);  // one command out, always
    num_waiting_ = 0;
    const Bytes answer = num_answers_ == odd_answer_ ? odd_bytes_ : good_answer();
    superseded_ = ++num_answers_ == kMostAnswers;
    out = {};
    out.serial = serial_;
    out.length = static_cast<uint16_t>(std::min(answer.size(), out.data.size()));
    std::copy_n(answer.begin(), out.length, out.data.begin());
    return !superseded_;
  }

  DecodeServer& server() { return server_; }
  void check_end() const {
    require(g_heap.num_live == 0);
    require(num_results_ == (superseded_ || ended_silently() ? 0 : 1));
    require(ended_silently() || !server_.connected());
    const bool untouched = g_heap.whole() && server_.all_good() && num_answers_ <= odd_answer_;
    require(!untouched || (code_ == TQ_OK && num_monitors_ == 1));
  }

 private:
  // The one documented end without a word: a READ of file 6011 that succeeds without data.
  bool ended_silently() const {
    return num_answers_ == size_t{odd_answer_} + 1 && serial_ == 8 && num_results_ == 0;
  }

  Bytes good_answer() const {
    const Bytes success = {0x90, 0x00};
    if (serial_ == 3) return Bytes(32, 0x4D) + success;
    if (serial_ == 4 || serial_ == 5) return Bytes(8, 0xA0) + success;
    if (serial_ == 8 || serial_ == 10 || serial_ == 12) return Bytes(command_.back(), 0xF1) + success;
    return success;
  }

  static int32_t on_command(const uint8_t* apdu, uint32_t length, uint8_t serial, void* self) {
    const HarnessTime harness;
    auto& app = *static_cast<Application*>(self);
    ++app.num_waiting_;
    app.serial_ = serial;
    app.command_ = bytes_of(View(apdu, length));
    return 0;
  }
  static int32_t on_monitor(const monitor_param* param, char* out, uint32_t size) {
    const HarnessTime harness;
    require(++g_application->num_monitors_ == 1 && param->card_type == 0 && size >= 2);
    std::memcpy(out, "{}", 2);
    return 2;
  }
  static void on_result(info_data* info) {
    const HarnessTime harness;
    require(++g_application->num_results_ == 1);
    g_application->code_ = info->code;
    require(g_application->is_documented(info->code));
    require((info->data == nullptr) == (info->flag == 0));
    tq_mem_free(info->data);
  }
  bool is_documented(int32_t code) const {
    switch (code) {
      case TQ_OK:
      case TQ_FAILED:
      case TQ_CONNECT_FAILED:
      case TQ_EXCHANGE_FAILED:
      case TQ_REQUEST_NOT_BUILT:
      case TQ_RESPONSE_MALFORMED:
      case TQ_NO_CARD_ANSWER:
      case TQ_CARD_REFUSED:
      case TQ_CARD_FAILED:
      case DecodeServer::kStatusCode:
        return true;
      default:
        return server_.sent_anything() && code < 0 && code >= -999999;
    }
  }

  Choices choices_;
  SessionConfig cfg_{};
  DecodeServer server_;
  Bytes command_;
  Bytes odd_bytes_;
  uint8_t odd_answer_ = 0;
  uint8_t serial_ = 0;
  int64_t clock_ = 1'700'000'123'456;
  int64_t clock_step_ = 0;
  size_t num_answers_ = 0;
  int num_waiting_ = 0;
  bool superseded_ = false;
  int num_monitors_ = 0;
  int num_results_ = 0;
  int32_t code_ = 0;
};

}  // namespace

extern "C" {

int32_t __wrap_tq_socket_connect(const SessionConfig*);
void __wrap_tq_socket_close();
int32_t __wrap_tcp_send_and_recv(const SessionConfig*, const uint8_t* request, uint32_t length,
                                 uint8_t* response, uint32_t capacity, int32_t);

int32_t __wrap_tq_socket_connect(const SessionConfig*) {
  return g_application->server().connect() ? 3 : int32_t{TQ_FAILED};
}
void __wrap_tq_socket_close() {
  g_application->server().close();
}
int32_t __wrap_tcp_send_and_recv(const SessionConfig*, const uint8_t* request, uint32_t length,
                                 uint8_t* response, uint32_t capacity, int32_t) {
  const HarnessTime harness;
  const Bytes answer = g_application->server().answer(View(request, length));
  if (answer.empty() || answer.size() > capacity) return TQ_EXCHANGE_FAILED;
  std::copy(answer.begin(), answer.end(), response);
  return static_cast<int32_t>(answer.size());
}

size_t allocations_of_last_run();
size_t allocations_of_last_run() {
  return g_heap.num_taken;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 4096) return 0;
  Application application(data, size);
  g_application = &application;
  {
    tq::IdCardRead read(application);
    g_heap.armed = true;
    read.run();
  }
  g_heap.armed = false;
  application.check_end();
  return 0;
}

}  // extern "C"
