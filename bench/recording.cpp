#include "recording.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

namespace {

[[noreturn]] void give_up(const char* what) {
  std::perror(what);
  std::exit(1);
}

Recording::Bytes from_hex(const std::string& hex) {
  Recording::Bytes bytes;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

sockaddr_in loopback(uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

// Sleeps, and for the last millisecond spins: the delay must be exact, since reads are compared with the sum
// of delays.
void pause_for(int delay_ms) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(delay_ms);
  if (delay_ms > 1) std::this_thread::sleep_for(std::chrono::milliseconds(delay_ms - 1));
  while (std::chrono::steady_clock::now() < end) {
  }
}

// Bytes of the passport's 7202 request that are the same in every read: frame head, token, and the whole
// cipher blocks up to the answer to INTERNAL AUTHENTICATE, behind the 17 counted files but EF.COM.
size_t constant_length(const Recording& recording) {
  constexpr size_t kBeforeSecret = 12 + 16;
  constexpr size_t kBeforeFiles = 9;
  constexpr uint16_t kCom = 0x011E;
  size_t in_chain = kBeforeFiles + 17 * 2;
  for (const auto& [id, content] : recording.passport.files) in_chain += id == kCom ? 0 : content.size();
  return kBeforeSecret + in_chain / 16 * 16;
}

const Recording::Bytes& answer_to(const Recording& recording, const Recording::Bytes& request) {
  for (const auto& exchange : recording.server) {
    if (exchange.request == request) return exchange.response;
  }
  const size_t constant = recording.of_passport() ? constant_length(recording) : SIZE_MAX;
  for (const auto& exchange : recording.server) {
    if (exchange.request.size() != request.size() || request.size() < constant) continue;
    const auto end = request.begin() + static_cast<ptrdiff_t>(constant);
    if (std::equal(request.begin(), end, exchange.request.begin())) return exchange.response;
  }
  const size_t command_at = request[1] == 0 && request[2] == 0 ? 5 : 3;
  std::fprintf(stderr, "a request of command %02X%02X that was not recorded\n", request[command_at],
               request[command_at + 1]);
  std::exit(1);
}

void serve_connection(const Recording& recording, int fd, int delay_ms, bool silent) {
  Recording::Bytes request;
  uint8_t chunk[32768];
  for (ssize_t n = 0; (n = recv(fd, chunk, sizeof chunk, 0)) > 0;) {
    request.insert(request.end(), chunk, chunk + n);
    if (silent || frame_length(request) == 0 || request.size() < frame_length(request)) continue;
    const Recording::Bytes& response = answer_to(recording, request);
    pause_for(delay_ms);
    if (send(fd, response.data(), response.size(), MSG_NOSIGNAL) < 0) break;
    request.clear();
  }
  close(fd);
}

}  // namespace

Recording Recording::load(const char* path) {
  std::ifstream file(path);
  if (!file) give_up(path);
  Recording recording;
  for (std::string line; std::getline(file, line);) {
    std::istringstream words(line);
    std::string kind, a, b, c;
    words >> kind >> a >> b >> c;
    if (kind == "init") recording.init[a] = b;
    if (kind == "time") recording.time = std::stoll(a);
    if (kind == "server") recording.server.push_back({from_hex(a), from_hex(b)});
    if (kind == "mrz") {
      recording.passport.number = a;
      recording.passport.birth = b;
      recording.passport.expiry = c;
    }
    if (kind == "file") {
      recording.passport.files[static_cast<uint16_t>(std::stoi(a, nullptr, 16))] = from_hex(b);
    }
    if (kind == "card")
      recording.card.push_back({static_cast<uint8_t>(std::stoi(a)), from_hex(b), from_hex(c)});
  }
  return recording;
}

size_t frame_length(const Recording::Bytes& bytes) {
  const auto number = [&](size_t at) { return static_cast<size_t>(bytes[at]) << 8 | bytes[at + 1]; };
  if (bytes.size() < 5) return 0;
  return number(1) == 0 ? number(3) : number(1);  // the long form has 4 bytes, here with zeros in front
}

void serve(const Recording& recording, int delay_ms, bool silent) {
  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = loopback(0);
  socklen_t len = sizeof address;
  if (bind(listener, reinterpret_cast<sockaddr*>(&address), len) != 0 || listen(listener, 16) != 0)
    give_up("listen");
  getsockname(listener, reinterpret_cast<sockaddr*>(&address), &len);
  std::printf("%d\n", ntohs(address.sin_port));
  std::fflush(stdout);
  for (;;) {
    const int fd = accept(listener, nullptr, nullptr);
    if (fd < 0) give_up("accept");
    serve_connection(recording, fd, delay_ms, silent);
  }
}

int connect_to(uint16_t port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  const sockaddr_in address = loopback(port);
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) give_up("connect");
  return fd;
}
