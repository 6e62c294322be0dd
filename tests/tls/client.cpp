// Drives the TLS client from the command line: client PORT STEP... connects to 127.0.0.1 and takes the steps
// in order. Prints one JSON array with the result of each step and the milliseconds it took.
//
//   name=TEXT        SSL_set_tlsext_host_name        limit=MS     SSL_set_time_limit
//   timeout=MS       SO_RCVTIMEO and SO_SNDTIMEO     nonblocking  makes the socket so
//   small            a small send buffer             alarms       a signal every millisecond from here on
//   connect          SSL_connect                     shutdown     SSL_shutdown
//   write=TEXT       SSL_write of the text           writes=N     SSL_write of N bytes 00 01 .. FF 00 ..
//   read             one SSL_read                    read-all     SSL_read until it gives no more
//   close-wait       waits until the server has closed the TCP connection
//   work             processor time of the process so far, in microseconds, in the place of a result
//   heap             the most bytes that the library has held at once, in the place of a result
//   no-memory=N      the library's N-th allocation from here on fails
//
// The library's heap is watched: a block that is given back with anything left in it ends the program with 3,
// and so does a block that is not given back.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "tls/ssl.h"
#include "util/memory.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr size_t kReadLen = 20000;

struct Session {
  int fd;
  SSL* ssl;
  Bytes received;  // in this step
};

// --- the library's heap ---

struct Heap {
  std::map<const void*, size_t> blocks;
  size_t live = 0;
  size_t peak = 0;
  int fails_in = 0;  // allocations; 0 = none does
};
Heap g_heap;

[[noreturn]] void blame(const char* what) {
  static_cast<void>(std::fprintf(stderr, "%s\n", what));
  std::_Exit(3);
}

int fail_allocation(int number) {
  g_heap.fails_in = number;
  return 0;
}

// --- steps ---

int connected_socket(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  return connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 ? fd : -1;
}

int set_timeouts(int fd, int ms) {
  const timeval timeout = {ms / 1000, (ms % 1000) * 1000};
  return setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) |
         setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
}

int set_small_buffer(int fd) {
  const int size = 4096;
  return setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
}

int start_alarms() {
  struct sigaction action = {};
  action.sa_handler = [](int) {};  // without SA_RESTART, so that every call may be interrupted
  const itimerval every_millisecond = {{0, 1000}, {0, 1000}};
  return sigaction(SIGALRM, &action, nullptr) | setitimer(ITIMER_REAL, &every_millisecond, nullptr);
}

int wait_for_close(int fd) {
  uint8_t byte = 0;
  ssize_t n = 0;
  do {
    pollfd watched = {fd, POLLIN, 0};
    poll(&watched, 1, 5000);
    n = recv(fd, &byte, 1, MSG_DONTWAIT);
  } while (n > 0);
  return static_cast<int>(n);
}

int processor_us() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<int>((usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000000 + usage.ru_utime.tv_usec +
                          usage.ru_stime.tv_usec);
}

int write_pattern(SSL* ssl, int len) {
  Bytes pattern(static_cast<size_t>(len));
  for (size_t i = 0; i < pattern.size(); ++i) pattern[i] = static_cast<uint8_t>(i);
  return SSL_write(ssl, pattern.data(), len);
}

int read_once(Session& s) {
  Bytes piece(kReadLen);
  const int n = SSL_read(s.ssl, piece.data(), static_cast<int>(piece.size()));
  if (n > 0) s.received.insert(s.received.end(), piece.begin(), piece.begin() + n);
  return n;
}

int read_all(Session& s) {
  int n = 0;
  do {
    n = read_once(s);
  } while (n > 0);
  return n;
}

using Step = std::function<int(Session&, const std::string&)>;

const std::map<std::string, Step> kSteps = {
    {"name", [](Session& s, auto& v) { return SSL_set_tlsext_host_name(s.ssl, v.c_str()); }},
    {"limit", [](Session& s, auto& v) { return SSL_set_time_limit(s.ssl, std::stoll(v)), 0; }},
    {"timeout", [](Session& s, auto& v) { return set_timeouts(s.fd, std::stoi(v)); }},
    {"nonblocking",
     [](Session& s, auto&) { return fcntl(s.fd, F_SETFL, fcntl(s.fd, F_GETFL) | O_NONBLOCK); }},
    {"small", [](Session& s, auto&) { return set_small_buffer(s.fd); }},
    {"alarms", [](Session&, auto&) { return start_alarms(); }},
    {"connect", [](Session& s, auto&) { return SSL_connect(s.ssl); }},
    {"write", [](Session& s, auto& v) { return SSL_write(s.ssl, v.data(), static_cast<int>(v.size())); }},
    {"writes", [](Session& s, auto& v) { return write_pattern(s.ssl, std::stoi(v)); }},
    {"read", [](Session& s, auto&) { return read_once(s); }},
    {"read-all", [](Session& s, auto&) { return read_all(s); }},
    {"shutdown", [](Session& s, auto&) { return SSL_shutdown(s.ssl); }},
    {"close-wait", [](Session& s, auto&) { return wait_for_close(s.fd); }},
    {"work", [](Session&, auto&) { return processor_us(); }},
    {"heap", [](Session&, auto&) { return static_cast<int>(g_heap.peak); }},
    {"no-memory", [](Session&, auto& v) { return fail_allocation(std::stoi(v)); }},
};

bool take_step(Session& s, const std::string& text, bool first) {
  const size_t split = text.find('=');
  const auto step = kSteps.find(text.substr(0, split));
  if (step == kSteps.end()) return false;
  const auto start = std::chrono::steady_clock::now();
  s.received.clear();
  const int result = step->second(s, split == std::string::npos ? "" : text.substr(split + 1));
  const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - start;
  std::printf("%s{\"step\":\"%s\",\"result\":%d,\"ms\":%.3f,\"received\":\"", first ? "[" : ",\n",
              step->first.c_str(), result, took.count());
  for (const uint8_t byte : s.received) std::printf("%02x", byte);
  std::printf("\"}");
  return true;
}

}  // namespace

// The linker sends the library's heap calls here (--wrap).
extern "C" void* __real_tq_mem_malloc(size_t size);
extern "C" void __real_tq_mem_free(void* block);

extern "C" void* __wrap_tq_mem_malloc(size_t size) {
  if (g_heap.fails_in > 0 && --g_heap.fails_in == 0) return nullptr;
  void* const block = __real_tq_mem_malloc(size);
  g_heap.blocks[block] = size;
  g_heap.live += size;
  g_heap.peak = std::max(g_heap.peak, g_heap.live);
  return block;
}

extern "C" void __wrap_tq_mem_free(void* block) {
  if (block == nullptr) return;
  const auto found = g_heap.blocks.find(block);
  if (found == g_heap.blocks.end()) blame("a block that is not there is given back");
  const auto* const bytes = static_cast<const uint8_t*>(block);
  if (std::any_of(bytes, bytes + found->second, [](uint8_t byte) { return byte != 0; }))
    blame("a block is not wiped");
  g_heap.live -= found->second;
  g_heap.blocks.erase(found);
  __real_tq_mem_free(block);
}

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  const int fd = connected_socket(std::atoi(argv[1]));
  if (fd < 0 || SSL_library_init() != 1) return 2;
  SSL_CTX* const ctx = SSL_CTX_new(SSLv23_client_method());
  Session session = {fd, SSL_new(ctx), {}};
  SSL_CTX_free(ctx);
  bool known = SSL_set_fd(session.ssl, fd) == 1;
  for (int i = 2; known && i < argc; ++i) known = take_step(session, argv[i], i == 2);
  SSL_free(session.ssl);
  close(fd);
  if (g_heap.live != 0) blame("a block is not given back");
  std::printf("]\n");
  return known ? 0 : 2;
}
