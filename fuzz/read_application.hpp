// The application around a whole read, and what each of its functions must see. The decode server takes the
// place of the library's connection, and the random bytes are the same in every run (--wrap).
#pragma once

#include <new>

#include "core/session/read_session.hpp"
#include "decode_server.hpp"
#include "library_heap.hpp"
#include "passport/passport_session_record.h"
#include "util/memory.h"

namespace fuzz {

class ReadApplication;
inline ReadApplication* g_application = nullptr;

class ReadApplication : public tq::ReadSession {
 public:
  ReadApplication(Choices choices, uint8_t card_type) : choices_(choices), card_type_(card_type) {
    g_heap = {};
    g_application = this;
  }
  virtual ~ReadApplication() = default;

  SessionConfig& config() override { return cfg_; }
  View input() const override { return {}; }
  void accept_answers() override { accepting_ = true; }
  bool superseded() const override { return superseded_; }
  bool cancelled() const override { return superseded_ || cancelled_; }
  bool command_lost() const override { return false; }
  bool wait_for_answer(tq::CardAnswer& out) override {
    const HarnessTime harness;
    require(accepting_ && num_commands_ == 1);  // one command out, always
    num_commands_ = 0;
    out = {};
    if (num_answers_++ == kMostAnswers || !next_answer(out)) superseded_ = true;
    return !superseded_;
  }

  DecodeServer& server() { return server_; }
  // When the read is over.
  virtual void check_end() const = 0;

 protected:
  virtual void take(View command, uint8_t serial) = 0;
  // False when the input is over.
  virtual bool next_answer(tq::CardAnswer& out) = 0;
  // Codes of this kind of read alone.
  virtual bool is_documented_here(int32_t /*code*/) const { return false; }

  void take_failing_allocation() {
    g_heap.failing = size_t{choices_.next()} << 8;
    g_heap.failing |= choices_.next();
  }
  Reply next_reply() {
    return choices_.one_of(
        {Reply::kGood, Reply::kNone, Reply::kStatus, Reply::kSealed, Reply::kPayload, Reply::kRaw});
  }
  Bytes counted() { return bytes_of(choices_.take(choices_.next())); }

  void configure(int32_t chunk, int32_t decode_mode, int32_t mode, int32_t frame_flag) {
    require(share_init(&cfg_, "SPECIMEN0SPECIMEN000", chunk, decode_mode, mode, frame_flag, 0, 268, "SN-1",
                       "", "", "x.y", 3, "127.0.0.1", 1) == 0);
    share_register_card_callback(&cfg_, on_command, this);
    share_register_monitor_callback(&cfg_, on_monitor);
    share_register_timestamp_callback(&cfg_,
                                      [] { return g_application->clock_ += g_application->clock_step_; });
    share_register_result_callback(&cfg_, on_result);
  }

  void check_results(bool ended_silently) const {
    require(g_heap.num_live == 0 && (ended_silently || !server_.connected()));
    require(num_results_ == (cancelled() || ended_silently ? 0 : 1));
    if (num_monitors_ == 1) require(num_results_ == 1 && monitored_code_ == code_);
  }

  static void give(const Bytes& answer, uint8_t serial, tq::CardAnswer& out) {
    out.serial = serial;
    if (answer.size() > out.data.size()) return;  // counts as missing
    std::copy(answer.begin(), answer.end(), out.data.begin());
    out.length = static_cast<uint16_t>(answer.size());
  }

  Choices choices_;
  SessionConfig cfg_{};
  DecodeServer server_;
  uint8_t clock_step_ = 0;
  size_t num_answers_ = 0;
  bool superseded_ = false;
  bool cancelled_ = false;
  int num_monitors_ = 0;
  int num_results_ = 0;
  int32_t code_ = 0;

 private:
  static constexpr size_t kMostAnswers = 600;

  static int32_t on_command(const uint8_t* apdu, uint32_t length, uint8_t serial, void* self) {
    const HarnessTime harness;
    auto& app = *static_cast<ReadApplication*>(self);
    require(serial <= 18 && !app.superseded_);
    ++app.num_commands_;
    const Block exact(View(apdu, length));
    app.take(exact.bytes(), serial);
    return 0;
  }
  static int32_t on_monitor(const monitor_param* param, char* out, uint32_t size) {
    const HarnessTime harness;
    ReadApplication& app = *g_application;
    require(++app.num_monitors_ == 1 && !app.cancelled() && param->card_type == app.card_type_);
    require(std::strlen(param->sod_file) < TQ_STATUS_TEXT_SIZE && std::strlen(param->nfc_err_cmd) <= 64);
    app.monitored_code_ = param->result_code;
    require(size >= 2);
    std::memcpy(out, "{}", 2);
    return 2;
  }
  static void on_result(info_data* info) {
    const HarnessTime harness;
    ReadApplication& app = *g_application;
    require(++app.num_results_ == 1 && !app.superseded_);
    app.code_ = info->code;
    require(app.is_documented(info->code));
    require((info->data == nullptr) == (info->flag == 0));
    if (info->flag != 0) {
      const bool is_text = info->flag == TQ_RESULT_TEXT;
      require(info->flag >= TQ_RESULT_JSON && info->flag <= TQ_RESULT_TEXT && is_text == (info->code < 0));
      require(static_cast<size_t>(info->length) <= malloc_usable_size(info->data));
    }
    tq_mem_free(info->data);
  }
  bool is_documented(int32_t code) const {
    constexpr int32_t kCodes[] = {TQ_OK,
                                  TQ_FAILED,
                                  TQ_CONNECT_FAILED,
                                  TQ_EXCHANGE_FAILED,
                                  TQ_REQUEST_NOT_BUILT,
                                  TQ_RESPONSE_MALFORMED,
                                  TQ_NO_CARD_ANSWER,
                                  TQ_CARD_REFUSED,
                                  TQ_CARD_FAILED,
                                  DecodeServer::kStatusCode};
    if (std::find(std::begin(kCodes), std::end(kCodes), code) != std::end(kCodes)) return true;
    return is_documented_here(code) || (server_.sent_anything() && code < 0 && code >= -999999);
  }

  uint8_t card_type_;
  int64_t clock_ = 1'700'000'123'456;
  bool accepting_ = false;
  int num_commands_ = 0;  // with the application
  int32_t monitored_code_ = 0;
};

// The read lies in a block, so that what it leaves there is seen.
template <typename Read>
void run_read(ReadApplication& application) {
  Block room(sizeof(Read));
  g_heap.armed = true;
  auto* read = new (room.data()) Read(application);
  read->run();
  read->~Read();
  g_heap.armed = false;
  require(!g_heap.holds_secrets(room.bytes()));
  application.check_end();
}

}  // namespace fuzz

extern "C" {

int32_t __wrap_tq_socket_connect(const SessionConfig*);
void __wrap_tq_socket_close();
int32_t __wrap_tcp_send_and_recv(const SessionConfig*, const uint8_t* request, uint32_t length,
                                 uint8_t* response, uint32_t capacity, int32_t);
ssize_t __wrap_getrandom(void* out, size_t size, unsigned);

int32_t __wrap_tq_socket_connect(const SessionConfig*) {
  return fuzz::g_application->server().connect() ? 3 : int32_t{TQ_FAILED};
}

void __wrap_tq_socket_close() {
  fuzz::g_application->server().close();
}

int32_t __wrap_tcp_send_and_recv(const SessionConfig*, const uint8_t* request, uint32_t length,
                                 uint8_t* response, uint32_t capacity, int32_t) {
  const fuzz::HarnessTime harness;
  const fuzz::Block exact(fuzz::View(request, length));
  const fuzz::Bytes answer = fuzz::g_application->server().answer(exact.bytes());
  std::fill_n(response, capacity, uint8_t{0});
  if (answer.empty() || answer.size() > capacity) return TQ_EXCHANGE_FAILED;
  std::copy(answer.begin(), answer.end(), response);
  return static_cast<int32_t>(answer.size());
}

ssize_t __wrap_getrandom(void* out, size_t size, unsigned) {
  std::memset(out, 0x6B, size);
  return static_cast<ssize_t>(size);
}
}
