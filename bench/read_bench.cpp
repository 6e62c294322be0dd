// Whole reads without a JavaScript engine: of identity cards, beside a bare client that does the same
// exchanges, and of passports.
//
//   read_bench serve FILE DELAY_MS [silent]  replay server
//
//   read_bench bare FILE PORT READS          the bare client: connect, send, receive; a call for each command
//
//   read_bench core FILE PORT READS          reads through the core's C interface
//
//   read_bench memory FILE PORT READS        the same, counting what the reads take and leave
//
// FILE comes from record.mjs and says which document it is. A passport's chip is a peer in this process,
// whose own time is measured. Each line of output is a JSON object.

#include <dirent.h>
#include <malloc.h>
#include <openssl/provider.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>

#include "passport_peer.hpp"
#include "recording.hpp"
#include "tqreader.h"

namespace {

using Clock = std::chrono::steady_clock;

double micros_since(Clock::time_point start) {
  return std::chrono::duration<double, std::micro>(Clock::now() - start).count();
}

double median(std::vector<double> values) {
  std::nth_element(values.begin(), values.begin() + static_cast<ptrdiff_t>(values.size() / 2), values.end());
  return values[values.size() / 2];
}

// --- the bare client ---

void receive_frame(int fd) {
  Recording::Bytes bytes;
  uint8_t chunk[8192];
  while (frame_length(bytes) == 0 || bytes.size() < frame_length(bytes)) {
    const ssize_t n = recv(fd, chunk, sizeof chunk, 0);
    if (n <= 0) std::exit(1);
    bytes.insert(bytes.end(), chunk, chunk + n);
  }
}

__attribute__((noinline)) void bare_card_call(const Recording::CardExchange& exchange,
                                              Recording::Bytes& answer) {
  answer = exchange.answer;
}

double bare_read_us(const Recording& recording, uint16_t port) {
  const auto start = Clock::now();
  const int fd = connect_to(port);
  Recording::Bytes answer;
  for (const auto& exchange : recording.card) bare_card_call(exchange, answer);
  for (const auto& exchange : recording.server) {
    if (send(fd, exchange.request.data(), exchange.request.size(), 0) < 0) std::exit(1);
    receive_frame(fd);
  }
  close(fd);
  return micros_since(start);
}

// --- reads through the core ---

struct Host {
  Recording recording;
  SessionConfig config{};
  std::unique_ptr<PassportPeer> chip;  // when it is a passport
  double chip_us = 0;                  // the chip's own time in the present read
  size_t num_commands = 0;             // of the present read
  std::mutex mutex;
  std::condition_variable ended;
  bool done = false;
  int32_t code = 0;
};
Host g_host;

int32_t on_passport_command(const uint8_t* apdu, uint32_t length, uint8_t serial, void*) {
  ++g_host.num_commands;
  const auto start = Clock::now();
  const std::span<const uint8_t> answer = g_host.chip->respond({apdu, length});
  g_host.chip_us += micros_since(start);
  passport_handler(&g_host.config, answer.data(), static_cast<uint32_t>(answer.size()), serial, 0);
  return 0;
}

int32_t on_card_command(const uint8_t* apdu, uint32_t length, uint8_t serial, void*) {
  const auto& exchange = g_host.recording.card[g_host.num_commands++];
  if (exchange.serial != serial || exchange.command != Recording::Bytes(apdu, apdu + length)) std::exit(1);
  id_card_handler(&g_host.config, exchange.answer.data(), static_cast<uint32_t>(exchange.answer.size()),
                  serial, 0);
  return 0;
}

int32_t on_monitor(const monitor_param* p, char* out, uint32_t size) {
  return std::snprintf(
      out, size,
      "{\"reqid\": \"%s\", \"result_code\": %d, \"decode_times\": %d, \"time_delay\": %d, "
      "\"nfc_err_code\": %u, \"nfc_err_cmd\": \"%s\", \"card_type\": %d, \"device_id\": \"%s\", "
      "\"appid\": \"%s\", \"sod_file\": \"%s\", \"stickCard_id\": \"%s\"}",
      p->reqid, p->result_code, p->decode_times, p->time_delay, p->nfc_err_code, p->nfc_err_cmd, p->card_type,
      p->device_id, p->appid, p->sod_file, p->stickCard_id);
}

int64_t on_time() {
  return g_host.recording.time;
}

void on_result(info_data* info) {
  tq_mem_free(info->data);
  const std::lock_guard lock(g_host.mutex);
  g_host.code = info->code;
  g_host.done = true;
  g_host.ended.notify_all();
}

void prepare_core(uint16_t port) {
  auto& init = g_host.recording.init;
  const char* sn = init["sn"].c_str();
  const int32_t rc = share_init(&g_host.config, init["appid"].c_str(), 212, std::stoi(init["decodeMode"]),
                                std::stoi(init["readMode"]), 1, 0, std::stoi(init["envIdCode"]), sn, sn, sn,
                                init["packageName"].c_str(), std::stoi(init["terId"]), "127.0.0.1", port);
  if (rc != 0) std::exit(1);
  share_set_reqid_version(&g_host.config, std::stoi(init["reqidType"]));
  if (g_host.recording.of_passport()) {
    OSSL_PROVIDER_load(nullptr, "default");
    OSSL_PROVIDER_load(nullptr, "legacy");  // has single DES
    g_host.chip = std::make_unique<PassportPeer>(g_host.recording.passport);
  }
  share_register_card_callback(&g_host.config, g_host.chip ? on_passport_command : on_card_command, nullptr);
  share_register_monitor_callback(&g_host.config, on_monitor);
  share_register_timestamp_callback(&g_host.config, on_time);
  share_register_result_callback(&g_host.config, on_result);
}

double core_read_us() {
  const auto start = Clock::now();
  uint8_t stick[16];
  std::memset(stick, 0xFF, sizeof stick);
  g_host.num_commands = 0;
  g_host.chip_us = 0;
  g_host.done = false;
  const auto& [number, birth, expiry, files] = g_host.recording.passport;
  const int32_t rc =
      g_host.chip ? passport_decode(&g_host.config, number.c_str(), birth.c_str(), expiry.c_str(), stick)
                  : id_card_decode(&g_host.config, stick);
  if (rc != 0) std::exit(1);
  std::unique_lock lock(g_host.mutex);
  g_host.ended.wait(lock, [] { return g_host.done; });
  if (g_host.code != 0) {
    std::fprintf(stderr, "a read ended with %d\n", g_host.code);
    std::exit(1);
  }
  return micros_since(start);
}

// --- counting memory ---

std::atomic<size_t> g_live{0};
std::atomic<size_t> g_peak{0};

size_t entries_of(const char* folder) {
  size_t count = 0;
  DIR* dir = opendir(folder);
  while (dir != nullptr && readdir(dir) != nullptr) ++count;
  if (dir != nullptr) closedir(dir);
  return count;
}

struct Footprint {
  size_t live = g_live;
  size_t heap = mallinfo2().uordblks;
  size_t descriptors = entries_of("/proc/self/fd");
  size_t threads = entries_of("/proc/self/task");
};

// A worker is a moment longer alive than its result.
Footprint settled() {
  usleep(50'000);
  return {};
}

// What a passport's read may take at most: its files once, request and answer of 0x7202, and 64 KiB.
size_t wanted_peak() {
  size_t files = 0;
  for (const auto& [id, content] : g_host.recording.passport.files) files += content.size();
  const size_t request = 2 * (512 + files);
  const size_t answer = 65535;
  return files + request + answer + 65536;
}

void measure_memory(int reads) {
  core_read_us();
  const Footprint before = settled();
  g_peak = g_live.load();
  core_read_us();
  const size_t peak = g_peak - before.live;
  for (int i = 0; i < reads; ++i) core_read_us();
  const Footprint after = settled();
  if (g_host.chip) std::printf("{\"wanted_peak_bytes\": %zu}\n", wanted_peak());
  std::printf(
      "{\"peak_bytes\": %zu, \"left_bytes\": %zd, \"reads\": %d, \"heap_growth\": %zd, "
      "\"descriptor_growth\": %zd, \"thread_growth\": %zd}\n",
      peak, static_cast<ssize_t>(after.live - before.live), reads,
      static_cast<ssize_t>(after.heap - before.heap),
      static_cast<ssize_t>(after.descriptors - before.descriptors),
      static_cast<ssize_t>(after.threads - before.threads));
}

void print_median(const char* what, const std::vector<double>& times, const std::vector<double>& chip_times) {
  std::printf(
      "{\"what\": \"%s\", \"reads\": %zu, \"median_us\": %.1f, \"chip_us\": %.1f, \"commands\": %zu}\n", what,
      times.size(), median(times), median(chip_times), g_host.num_commands);
}

}  // namespace

// The linker sends the library's heap calls here (--wrap).
extern "C" void* __real_tq_mem_malloc(size_t size);
extern "C" void __real_tq_mem_free(void* block);

extern "C" void* __wrap_tq_mem_malloc(size_t size) {
  void* block = __real_tq_mem_malloc(size);
  if (block == nullptr) return nullptr;
  const size_t live = g_live += malloc_usable_size(block);
  size_t peak = g_peak;
  while (live > peak && !g_peak.compare_exchange_weak(peak, live)) {
  }
  return block;
}

extern "C" void __wrap_tq_mem_free(void* block) {
  if (block != nullptr) g_live -= malloc_usable_size(block);
  __real_tq_mem_free(block);
}

int main(int argc, char** argv) {
  if (argc < 4) return 2;
  const std::string mode = argv[1];
  g_host.recording = Recording::load(argv[2]);
  if (mode == "serve") serve(g_host.recording, std::atoi(argv[3]), argc > 4);
  if (argc < 5) return 2;
  const auto port = static_cast<uint16_t>(std::atoi(argv[3]));
  const int reads = std::atoi(argv[4]);
  prepare_core(port);
  if (mode == "memory") {
    measure_memory(reads);
    return 0;
  }
  std::vector<double> times;
  std::vector<double> chip_times;
  for (int i = 0; i < reads; ++i) {
    times.push_back(mode == "bare" ? bare_read_us(g_host.recording, port) : core_read_us());
    chip_times.push_back(g_host.chip_us);
  }
  print_median(mode.c_str(), times, chip_times);
  return 0;
}
