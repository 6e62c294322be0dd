// One whole HTTPS exchange with a server on loopback: the library's TLS client, beside the same by libssl in
// the same process. Connect, handshake, request, answer to its end, close_notify, each time with a new
// context as the library does it, and once more with a context of libssl that is kept.
//
//   tls_bench PORT ROUNDS
//
// The three take turns. The table has medians of the process's own processor time and of the whole time.
#include <arpa/inet.h>
#include <malloc.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "openssl_client.hpp"
#include "tls/ssl.h"
#include "util/memory.h"

namespace {

const std::string kRequest =
    "GET / HTTP/1.1\r\nHost: localhost\r\nAccept: */*\r\nContent-Type:application/json\r\n\r\n";

void require(bool held, const char* what) {
  if (held) return;
  static_cast<void>(std::fprintf(stderr, "tls_bench: %s failed\n", what));
  std::exit(1);
}

int connect_to(uint16_t port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  require(connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0, "connect");
  return fd;
}

std::string our_exchange(int fd) {
  require(SSL_library_init() == 1, "SSL_library_init");
  SSL_CTX* const ctx = SSL_CTX_new(SSLv23_client_method());
  SSL* const ssl = SSL_new(ctx);
  require(SSL_set_fd(ssl, fd) == 1, "SSL_set_fd");
  require(SSL_connect(ssl) == 1, "SSL_connect");
  const int len = static_cast<int>(kRequest.size());
  require(SSL_write(ssl, kRequest.data(), len) == len, "SSL_write");
  std::string answer;
  std::array<char, 2048> piece;
  int n = 0;
  while ((n = SSL_read(ssl, piece.data(), piece.size())) > 0)
    answer.append(piece.data(), static_cast<size_t>(n));
  require(n == 0, "SSL_read");
  require(SSL_shutdown(ssl) == 1, "SSL_shutdown");
  SSL_free(ssl);
  SSL_CTX_free(ctx);
  return answer;
}

double processor_ms() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

struct Client {
  const char* name;
  std::function<std::string(int)> exchange;
  std::vector<double> processor;
  std::vector<double> whole;
};

void measure(Client& client, uint16_t port) {
  const auto start = std::chrono::steady_clock::now();
  const double before = processor_ms();
  const int fd = connect_to(port);
  const std::string answer = client.exchange(fd);
  close(fd);
  client.processor.push_back(processor_ms() - before);
  client.whole.push_back(
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
  require(answer.find("AES128-SHA256") != std::string::npos, "the suite");
}

size_t g_live = 0;
size_t g_peak = 0;

}  // namespace

// The linker sends the library's heap calls here (--wrap).
extern "C" void* __real_tq_mem_malloc(size_t size);
extern "C" void __real_tq_mem_free(void* block);

extern "C" void* __wrap_tq_mem_malloc(size_t size) {
  void* const block = __real_tq_mem_malloc(size);
  g_live += malloc_usable_size(block);
  g_peak = std::max(g_peak, g_live);
  return block;
}

extern "C" void __wrap_tq_mem_free(void* block) {
  g_live -= malloc_usable_size(block);
  __real_tq_mem_free(block);
}

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  const auto port = static_cast<uint16_t>(std::atoi(argv[1]));
  const int rounds = std::atoi(argv[2]);
  std::array<Client, 3> clients = {{
      {"ours", our_exchange, {}, {}},
      {"libssl", [](int fd) { return openssl_exchange(fd, kRequest, Context::kEach); }, {}, {}},
      {"libssl, context kept", [](int fd) { return openssl_exchange(fd, kRequest, Context::kKept); }, {}, {}},
  }};
  for (Client& client : clients) measure(client, port);  // warms up
  for (Client& client : clients) client.processor.clear(), client.whole.clear();
  for (int i = 0; i < rounds; ++i) {
    for (Client& client : clients) measure(client, port);
  }
  const double ours = median(clients[0].processor);
  std::printf("%-22s %14s %10s %12s\n", "", "processor ms", "whole ms", "ours / this");
  for (const Client& client : clients) {
    const double processor = median(client.processor);
    std::printf("%-22s %14.3f %10.3f %12.2f\n", client.name, processor, median(client.whole),
                ours / processor);
  }
  std::printf("rounds %d; our heap: at most %zu bytes, %zu left\n", rounds, g_peak, g_live);
  return 0;
}
