// A whole passport read, its decode server and its chip in one. Choices: read mode, chunk size, clock;
// refused connects; which allocation fails; what the server answers to each of its four commands. The content
// is a series of turns of the chip, each a byte that says what it does (low half) and with which step number
// (high half; 0: the command's own), and what that takes. Then the read is superseded.
//
// Whenever the read waits, exactly one command is with the application; and what 0x7202 brings of a file is
// what lies in the chip, or nothing.
#include <malloc.h>

#include <new>

#include "decode_server.hpp"
#include "passport/passport_read.hpp"
#include "passport_chip.hpp"
#include "util/memory.h"

namespace {

using namespace fuzz;

constexpr size_t kMostAnswers = 600;
constexpr size_t kBlock = 8;
constexpr size_t kLongFile = 36000;
const Bytes kSuccess = {0x90, 0x00};
constexpr size_t kMostLive = size_t{4} << 20;

enum Turn : uint8_t {
  kGoodAnswers,  // count
  kData,         // len, bytes: the data of a good answer
  kBlocks,       // len, bytes: deciphered blocks with whatever padding
  kObjects,      // len, bytes: data objects with a right MAC
  kBytes,        // len, bytes: the answer
  kSpoiled,      // place, value: a good answer with one byte changed
  kShortened,    // len: the start of a good answer, with success
  kMissing,      //
  kFile,         // id, blocks of 16, len, bytes: changes a file; no bytes remove it
  kCancel,       //
  kOdd,          // how, number: a reply of chips in people's pockets
  kNumTurns,
};

// --- the library's heap ---

struct Heap {
  size_t num_live = 0;
  size_t live_bytes = 0;
  size_t num_taken = 0;
  size_t failing = 0;  // the allocation of this number fails; 0 = none
  bool armed = false;  // the library runs, not the harness
};
Heap g_heap;

// While the library has called back into the harness.
class HarnessTime {
 public:
  HarnessTime() : armed_(g_heap.armed) { g_heap.armed = false; }
  ~HarnessTime() { g_heap.armed = armed_; }
  HarnessTime(const HarnessTime&) = delete;
  HarnessTime& operator=(const HarnessTime&) = delete;

 private:
  bool armed_;
};

bool holds_secrets(View memory) {
  const View holder(reinterpret_cast<const uint8_t*>(kHolder), sizeof kHolder - 1);
  for (const View secret :
       {holder, View(kSessionEnc), View(kSessionMac), View(kDocumentEnc), View(kDocumentMac)}) {
    if (memmem(memory.data(), memory.size(), secret.data(), secret.size()) != nullptr) return true;
  }
  return false;
}

// --- the application ---

class Application;
Application* g_application = nullptr;

class Application final : public tq::ReadSession {
 public:
  Application(const uint8_t* data, size_t size) : choices_(data, size) {
    const uint8_t mode = choices_.next();
    const uint8_t chunk = std::max<uint8_t>(choices_.next(), 1);
    server_.refused_connects = choices_.next();
    g_heap = {};
    g_heap.failing = size_t{choices_.next()} << 8;
    g_heap.failing |= choices_.next();
    for (DecodeServer::Plan& plan : server_.plans) {
      plan.reply = choices_.one_of(
          {Reply::kGood, Reply::kNone, Reply::kStatus, Reply::kSealed, Reply::kPayload, Reply::kRaw});
      if (plan.reply >= Reply::kSealed) plan.content = counted();
    }
    clock_step_ = mode >> 2;
    server_.timing = (mode & 2) != 0;
    require(share_init(&cfg_, "SPECIMEN0SPECIMEN000", chunk, mode & 1, 1 + (mode & 1), 0, 0, 268, "SN-1", "",
                       "", "x.y", 3, "127.0.0.1", 1) == 0);
    cfg_.serverRoute = TQ_ROUTE_PASSPORT;
    share_register_card_callback(&cfg_, on_command, this);
    share_register_monitor_callback(&cfg_, on_monitor);
    share_register_timestamp_callback(&cfg_,
                                      [] { return g_application->clock_ += g_application->clock_step_; });
    share_register_result_callback(&cfg_, on_result);
  }

  SessionConfig& config() override { return cfg_; }
  View input() const override { return {reinterpret_cast<const uint8_t*>(&kDocument), sizeof kDocument}; }
  void accept_answers() override { accepting_ = true; }
  bool superseded() const override { return superseded_; }
  bool cancelled() const override { return superseded_ || cancelled_; }
  bool command_lost() const override { return false; }
  bool wait_for_answer(tq::CardAnswer& out) override {
    const HarnessTime harness;
    require(accepting_ && num_commands_ == 1);
    num_commands_ = 0;
    if (num_answers_++ == kMostAnswers || !next_answer(out)) superseded_ = true;
    if (out.serial > 9) odd_step_ = true;
    if (step_ != 0) knows_content_ = false;
    return !superseded_;
  }

  DecodeServer& server() { return server_; }
  void check_end() const {
    require(!server_.connected() && g_heap.num_live == 0);
    check_files();
    if (superseded_) require(num_results_ == 0);
    if (cancelled_ && accepting_) require(num_results_ == 0);
    if (!cancelled()) require(num_results_ == 1);
    if (num_monitors_ == 1) require(num_results_ == 1 && monitored_code_ == code_);
    if (num_results_ == 1 && faithful_ && heap_is_whole() && server_.all_good()) require(code_ == TQ_OK);
  }

 private:
  Bytes counted() {
    const View bytes = choices_.take(choices_.next());
    return {bytes.begin(), bytes.end()};
  }

  // False when the input is over.
  bool next_answer(tq::CardAnswer& out) {
    out = {};
    if (good_answers_left_ == 0 && !take_turns(out)) return false;
    if (good_answers_left_ > 0) {
      --good_answers_left_;
      give(chip_.good_answer(), out);
    }
    return true;
  }

  // Turns that are no answer, up to the first that is one.
  bool take_turns(tq::CardAnswer& out) {
    while (!choices_.content().empty()) {
      const uint8_t turn = choices_.next();
      step_ = turn >> 4;
      switch ((turn & 0x0F) % kNumTurns) {
        case kGoodAnswers:
          good_answers_left_ = choices_.next() % 128 + size_t{1};
          faithful_ = faithful_ && step_ == 0;
          return true;
        case kFile:
          change_file();
          continue;
        case kCancel:
          cancelled_ = true;
          continue;
        default:
          faithful_ = false;
          give(odd_answer(turn & 0x0F), out);
          if ((turn & 0x0F) % kNumTurns == kMissing) out.status = -1;
          return true;
      }
    }
    return false;
  }

  void change_file() {
    faithful_ = false;
    if (num_answers_ > 1) knows_content_ = false;
    const auto id = static_cast<uint16_t>(0x0100 + choices_.next() % 32);
    const uint8_t blocks = choices_.next();
    Bytes bytes = counted();
    if (bytes.empty()) {
      chip_.files.erase(id);
      return;
    }
    bytes.resize(std::max(bytes.size(), blocks == 0xFF ? kLongFile : size_t{blocks} * 16));
    chip_.files[id] = bytes;
  }

  // With a right MAC the chip can say what it likes.
  Bytes with_mac(const Bytes& objects) {
    knows_content_ = false;
    return chip_.channel().answer(objects) + kSuccess;
  }

  Bytes odd_answer(uint8_t turn) {
    switch (turn % kNumTurns) {
      case kData:
        return with_mac(chip_.channel().padded_cryptogram(counted()) + Bytes{0x99, 2, 0x90, 0});
      case kBlocks: {
        Bytes blocks = counted();
        blocks.resize(blocks.size() / kBlock * kBlock + kBlock);
        return with_mac(chip_.channel().cryptogram(blocks));
      }
      case kObjects:
        return with_mac(counted());
      case kBytes:
        return counted();
      case kSpoiled: {
        Bytes answer = chip_.good_answer();
        const uint8_t place = choices_.next();
        answer[place % answer.size()] ^= choices_.next();
        return answer;
      }
      case kShortened: {
        Bytes answer = chip_.good_answer();
        answer.resize(choices_.next() % answer.size());
        return answer + kSuccess;
      }
      case kOdd:
        return odd_reply();
      default:
        return {};
    }
  }

  Bytes odd_reply() {
    ChipReply reply = chip_.good_reply();
    const uint8_t how = choices_.next();
    const uint8_t count = choices_.next();
    const auto refused_with = [&](unsigned status) {
      reply.data.clear();
      reply.status = static_cast<uint16_t>(status);
      reply.in_channel = reply.in_channel && (how & 0x80) != 0;
    };
    switch ((how & 0x7F) % 9) {
      case 0:
        reply.data.resize(std::min<size_t>(reply.data.size(), count));
        break;
      case 1:
        if (reply.data.size() >= chip_.asked()) reply.data.resize(reply.data.size() + count % 20, 0xDD);
        break;
      case 2:
        reply.status = static_cast<uint16_t>(0x6200 + count);
        break;
      case 3:
        reply.status = static_cast<uint16_t>(0x6100 + count);
        break;
      case 4:
        refused_with(0x6C00U + count);
        break;
      case 5:
        refused_with(0x6700);
        break;
      case 6:
        refused_with(0x6982);
        break;
      case 7:
        refused_with(0x6D00);
        break;
      default:
        refused_with(0x6300U + count);
    }
    return chip_.sealed(reply);
  }

  // By the header of a file, or its first four bytes where that says nothing.
  static bool is_whole(View row, View file) {
    size_t size = 0;
    if (file.size() >= 2 && file[1] < 0x80) size = 2U + file[1];
    if (file.size() >= 3 && file[1] == 0x81) size = 3U + file[2];
    if (file.size() >= 4 && file[1] == 0x82) size = 4 + number(file.subspan(2, 2));
    const bool fits = size > 4 ? row.size() == size : row.size() >= size && row.size() <= 4;
    return fits && row.size() <= file.size() && std::equal(row.begin(), row.end(), file.begin());
  }

  // The requests have DG1 to DG16, EF.SOD, the answer to INTERNAL AUTHENTICATE, its challenge, EF.COM, two
  // times.
  void check_files() const {
    if (!server_.files || !knows_content_) return;
    View rest = *server_.files;
    const auto take_counted = [&rest] {
      const size_t size = number(rest.first(2));
      const View bytes = rest.subspan(2, size);
      rest = rest.subspan(2 + size);
      return bytes;
    };
    for (int i = 0; i < 19; ++i) {
      const auto id = static_cast<uint16_t>(i < 16 ? TQ_EF_DG1 + i : i == 16 ? TQ_EF_SOD : TQ_EF_COM);
      const View bytes = take_counted();
      if (i == 17) rest = rest.subspan(8);
      const auto file = chip_.files.find(id);
      if (i == 17 || bytes.empty()) continue;
      require(file != chip_.files.end() && is_whole(bytes, file->second));
    }
    require(rest.size() == 4);
  }

  void give(const Bytes& answer, tq::CardAnswer& out) const {
    out.serial = step_ == 0 ? chip_.serial() : static_cast<uint8_t>(step_ - 1);
    if (answer.size() > out.data.size()) return;  // counts as missing
    std::copy(answer.begin(), answer.end(), out.data.begin());
    out.length = static_cast<uint16_t>(answer.size());
  }

  static int32_t on_command(const uint8_t* apdu, uint32_t length, uint8_t serial, void* self) {
    const HarnessTime harness;
    auto& app = *static_cast<Application*>(self);
    require(length >= 5 && serial <= 18 && !app.superseded_);
    ++app.num_commands_;
    const Block exact(View(apdu, length));
    app.chip_.take(exact.bytes(), serial, app.faithful_ && app.heap_is_whole());
    return 0;
  }
  static int32_t on_monitor(const monitor_param* param, char* out, uint32_t size) {
    const HarnessTime harness;
    Application& app = *g_application;
    require(++app.num_monitors_ == 1 && !app.cancelled() && param->card_type == 1);
    require(std::strlen(param->sod_file) < TQ_STATUS_TEXT_SIZE && std::strlen(param->nfc_err_cmd) <= 64);
    app.monitored_code_ = param->result_code;
    require(size >= 2);
    std::memcpy(out, "{}", 2);
    return 2;
  }
  static void on_result(info_data* info) {
    const HarnessTime harness;
    Application& app = *g_application;
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

  bool heap_is_whole() const { return g_heap.failing == 0 || g_heap.num_taken < g_heap.failing; }
  bool is_documented(int32_t code) const {
    switch (code) {
      case TQ_OK:
      case TQ_FAILED:
      case TQ_CONNECT_FAILED:
      case TQ_EXCHANGE_FAILED:
      case TQ_REQUEST_NOT_BUILT:
      case TQ_RESPONSE_MALFORMED:
      case TQ_AUTHENTICATION_REFUSED:
      case TQ_NO_CARD_ANSWER:
      case TQ_CARD_REFUSED:
      case TQ_CARD_FAILED:
      case DecodeServer::kStatusCode:
        return true;
      case TQ_OUT_OF_RANGE:
        return odd_step_;
      default:
        return server_.sent_anything() && code < 0 && code >= -999999;
    }
  }

  Choices choices_;
  SessionConfig cfg_{};
  DecodeServer server_;
  PassportChip chip_;
  int64_t clock_ = 1'700'000'123'456;
  uint8_t clock_step_ = 0;
  uint8_t step_ = 0;
  size_t good_answers_left_ = 0;
  size_t num_answers_ = 0;
  bool accepting_ = false;
  bool superseded_ = false;
  bool cancelled_ = false;
  bool odd_step_ = false;
  bool faithful_ = true;       // the chip has been itself so far
  bool knows_content_ = true;  // what it has said of its files is what they are
  int num_commands_ = 0;       // with the application
  int num_monitors_ = 0;
  int num_results_ = 0;
  int32_t monitored_code_ = 0;
  int32_t code_ = 0;
};

}  // namespace

// The linker sends the library's calls here (--wrap).
extern "C" {

void* __real_tq_mem_malloc(size_t size);
void __real_tq_mem_free(void* block);

void* __wrap_tq_mem_malloc(size_t size) {
  if (g_heap.armed && ++g_heap.num_taken == g_heap.failing) return nullptr;
  void* block = __real_tq_mem_malloc(size);
  ++g_heap.num_live;
  g_heap.live_bytes += malloc_usable_size(block);
  require(g_heap.live_bytes < kMostLive);
  return block;
}

void __wrap_tq_mem_free(void* block) {
  if (block == nullptr) return;
  --g_heap.num_live;
  g_heap.live_bytes -= malloc_usable_size(block);
  require(!holds_secrets({static_cast<const uint8_t*>(block), malloc_usable_size(block)}));
  __real_tq_mem_free(block);
}

int32_t __wrap_tq_socket_connect(const SessionConfig*) {
  return g_application->server().connect() ? 3 : int32_t{TQ_FAILED};
}

void __wrap_tq_socket_close() {
  g_application->server().close();
}

int32_t __wrap_tcp_send_and_recv(const SessionConfig*, const uint8_t* request, uint32_t length,
                                 uint8_t* response, uint32_t capacity, int32_t) {
  const HarnessTime harness;
  const Block exact(View(request, length));
  const Bytes answer = g_application->server().answer(exact.bytes());
  std::fill_n(response, capacity, uint8_t{0});
  if (answer.empty() || answer.size() > capacity) return TQ_EXCHANGE_FAILED;
  std::copy(answer.begin(), answer.end(), response);
  return static_cast<int32_t>(answer.size());
}

// The same bytes in every run.
ssize_t __wrap_getrandom(void* out, size_t size, unsigned) {
  std::memset(out, 0x6B, size);
  return static_cast<ssize_t>(size);
}

size_t allocations_of_last_run();
size_t allocations_of_last_run() {
  return g_heap.num_taken;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 4096) return 0;
  Application application(data, size);
  g_application = &application;
  Block room(sizeof(tq::PassportRead));
  g_heap.armed = true;
  auto* read = new (room.data()) tq::PassportRead(application);
  read->run();
  read->~PassportRead();
  g_heap.armed = false;
  require(!holds_secrets(room.bytes()));
  application.check_end();
  return 0;
}

}  // extern "C"
