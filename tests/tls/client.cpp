// Drives the TLS client, and the location request on top of it, from the command line: client PORT STEP...
// connects to 127.0.0.1 and takes the steps in order. Prints one JSON array with the result of each step and
// the milliseconds it took.
//
//   name=TEXT        SSL_set_tlsext_host_name        limit=MS     SSL_set_time_limit
//   timeout=MS       SO_RCVTIMEO and SO_SNDTIMEO     nonblocking  makes the socket so
//   small            a small send buffer             alarms       a signal every millisecond from here on
//   connect          SSL_connect                     shutdown     SSL_shutdown
//   write=TEXT       SSL_write of the text           writes=N     SSL_write of N bytes 00 01 .. FF 00 ..
//   read             one SSL_read                    read-all     SSL_read until it gives no more
//   close-wait       waits until the server has closed the TCP connection
//   heap             the most bytes that the library has held at once, in the place of a result
//   no-memory=N      the library's N-th allocation from here on fails
//   pace=N           the library's monotonic clock runs N times as fast from here on
//   ask=LEVEL        scp_authentication at this log level; nothing of the request may stay on its stack
//   exchange=N       scp_socket_send_and_recv with room for N bytes in the place of the request, at log level
//   2
//
// The library's heap is watched: a block that is given back with anything left in it ends the program with 3,
// and so does a block that is not given back.
#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "location/https_exchange.h"
#include "location/location_request.h"
#include "tls/ssl.h"
#include "util/base64.h"
#include "util/memory.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct Session {
  int port;
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
int64_t g_pace = 1;

[[noreturn]] void blame(const char* what) {
  static_cast<void>(std::fprintf(stderr, "%s\n", what));
  std::_Exit(3);
}

// --- steps ---

int connected_socket(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const sockaddr_in address = {AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
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
    poll(&watched, 1, 20000);
    n = recv(fd, &byte, 1, MSG_DONTWAIT);
  } while (n > 0);
  return static_cast<int>(n);
}

int write_pattern(SSL* ssl, int len) {
  Bytes pattern(static_cast<size_t>(len));
  for (size_t i = 0; i < pattern.size(); ++i) pattern[i] = static_cast<uint8_t>(i);
  return SSL_write(ssl, pattern.data(), len);
}

int read_pieces(Session& s, bool all) {
  Bytes piece(20000);
  int n = 0;
  do {
    n = SSL_read(s.ssl, piece.data(), static_cast<int>(piece.size()));
    s.received.insert(s.received.end(), piece.begin(), piece.begin() + std::max(n, 0));
  } while (all && n > 0);
  return n;
}

// --- the location request ---

ScpContext context_for(const Session& s, uint32_t log_level) {
  ScpContext context{};
  scp_init(&context, "qwertyuiopasdfghjklz", 268, log_level, 2, "0123456789", "ABCDEFGHIJKLMNOPQRSTUVWXYZ",
           "127.0.0.1", static_cast<uint32_t>(s.port));
  scp_register_GT_callback(&context, [] { return int64_t{1357924680135}; });
  return context;
}

Bytes request_of(const ScpContext& context) {
  Bytes request(1024);
  request.resize(static_cast<size_t>(scp_input_9300_group(&context, request.data(), 1024)));
  return request;
}

// Whether the stack has four bytes of the text, in their order or the other way round, as in a word.
[[maybe_unused]] bool holds(const Bytes& stack, std::string text) {
  for (int way = 0; way < 2; ++way, std::reverse(text.begin(), text.end())) {
    for (size_t at = 0; at + 4 <= text.size(); ++at) {
      if (memmem(stack.data(), stack.size(), &text[at], 4) != nullptr) return true;
    }
  }
  return false;
}

int ask(Session& s, uint32_t log_level) {
  struct Call {
    ScpContext context;
    uint32_t location;
    int32_t rc;
  } call = {context_for(s, log_level), 0, 0};
  Bytes stack(1 << 17);
  pthread_attr_t attributes;
  pthread_t thread;
  pthread_attr_init(&attributes);
  pthread_attr_setstack(&attributes, stack.data(), stack.size());
  const auto run = [](void* data) -> void* {
    auto& c = *static_cast<Call*>(data);
    c.rc = scp_authentication(&c.context, &c.location);
    return nullptr;
  };
  if (pthread_create(&thread, &attributes, run, &call) != 0) blame("no thread");
  pthread_join(thread, nullptr);
#ifndef __SANITIZE_ADDRESS__  // leaves copies of its own
  const Bytes request = request_of(call.context);
  std::string text(1024, '\0');
  text.resize(static_cast<size_t>(
      scpBASE64encode(request.data(), static_cast<int32_t>(request.size()), text.data(), 1024)));
  for (const std::string& said : {std::string(call.context.appid), std::string(call.context.manufacturer),
                                  std::string(call.context.model), std::string("1357924680135"), text,
                                  std::string(R"(","sessionId":""})"), std::string("getPlace HTTP")}) {
    if (holds(stack, said)) blame(("on the stack: " + said).c_str());
  }
#endif
  return call.rc == 0 ? static_cast<int>(call.location) : call.rc;
}

int exchange(Session& s, uint32_t capacity) {
  const ScpContext context = context_for(s, 2);
  const Bytes request = request_of(context);
  s.received = request;
  s.received.resize(std::max(request.size(), size_t{capacity}));
  return scp_socket_send_and_recv(&context, s.received.data(), static_cast<uint32_t>(request.size()),
                                  s.received.data(), capacity);
}

using Step = int (*)(Session&, const std::string&);

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
    {"read", [](Session& s, auto&) { return read_pieces(s, false); }},
    {"read-all", [](Session& s, auto&) { return read_pieces(s, true); }},
    {"shutdown", [](Session& s, auto&) { return SSL_shutdown(s.ssl); }},
    {"close-wait", [](Session& s, auto&) { return wait_for_close(s.fd); }},
    {"heap", [](Session&, auto&) { return static_cast<int>(g_heap.peak); }},
    {"no-memory", [](Session&, auto& v) { return g_heap.fails_in = std::stoi(v); }},
    {"pace", [](Session&, auto& v) { return static_cast<int>(g_pace = std::stoi(v)); }},
    {"ask", [](Session& s, auto& v) { return ask(s, static_cast<uint32_t>(std::stoi(v))); }},
    {"exchange", [](Session& s, auto& v) { return exchange(s, static_cast<uint32_t>(std::stoi(v))); }},
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

// The linker sends the library's calls here (--wrap).
extern "C" int __real_clock_gettime(clockid_t clock, timespec* out);
extern "C" int __wrap_clock_gettime(clockid_t clock, timespec* out) {
  const int result = __real_clock_gettime(clock, out);
  const int64_t ms = (int64_t{out->tv_sec} * 1000 + out->tv_nsec / 1'000'000) * g_pace;
  *out = {static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000 * 1'000'000)};
  return result;
}

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
  const int port = std::atoi(argv[1]);
  const int fd = connected_socket(port);
  if (fd < 0 || SSL_library_init() != 1) return 2;
  SSL_CTX* const ctx = SSL_CTX_new(SSLv23_client_method());
  Session session = {port, fd, SSL_new(ctx), {}};
  SSL_CTX_free(ctx);
  bool known = SSL_set_fd(session.ssl, fd) == 1;
  for (int i = 2; known && i < argc; ++i) known = take_step(session, argv[i], i == 2);
  SSL_free(session.ssl);
  close(fd);
  if (g_heap.live != 0) blame("a block is not given back");
  std::printf("]\n");
  return known ? 0 : 2;
}
