#include "tls/client.hpp"

#include <arpa/inet.h>

#include <algorithm>

#include "tls/handshake.hpp"
#include "util/secret.hpp"

namespace tq::tls {

namespace {

// RFC 6066 forbids literals of addresses. `text` ends with NUL. The resolver also knows IPv4 addresses of
// fewer parts, and inet_aton with it. No name has a colon.
bool is_address(const char* text) {
  in_addr address{};
  return std::string_view(text).find(':') != std::string_view::npos || inet_aton(text, &address) != 0;
}

bool is_name_character(char c) {
  return c > ' ' && c <= '~';
}

}  // namespace

bool Client::set_server_name(std::string_view name) {
  std::array<char, kMaxServerNameLen + 1> text{};
  if (name.ends_with('.')) name.remove_suffix(1);  // the root is not sent
  if (name.size() > kMaxServerNameLen || !std::all_of(name.begin(), name.end(), is_name_character))
    return false;
  std::copy(name.begin(), name.end(), text.begin());
  server_name_len_ = is_address(text.data()) ? 0 : name.size();
  std::copy(name.begin(), name.end(), server_name_.begin());
  return true;
}

bool Client::connect() {
  if (state_ != State::kNew || records_.failed()) return state_ == State::kConnected && !records_.failed();
  if (!run_handshake(records_, handshake_, random_, std::span(server_name_).first(server_name_len_))) {
    return records_.fail_silently();  // also when the server has ended it with close_notify
  }
  state_ = State::kConnected;
  records_.take_application_data();
  return true;
}

bool Client::write(std::span<const uint8_t> bytes) {
  if (!open() || state_ == State::kClosing || records_.closed_by_peer()) return false;
  return records_.write(ContentType::kApplicationData, bytes) && records_.flush();
}

// The first one is refused, the others are left without an answer. RFC 5246 section 7.4.1.1.
bool Client::answer_hello_request() {
  if (!handshake_.take_hello_request()) return false;
  if (renegotiation_refused_ || state_ == State::kClosing) return true;
  renegotiation_refused_ = true;
  return records_.write_warning(Alert::kNoRenegotiation) && records_.flush();
}

ptrdiff_t Client::read(std::span<uint8_t> out) {
  if (!open()) return -1;
  ContentType type{};
  while (records_.wait_for_content(type)) {
    if (type == ContentType::kApplicationData) {
      const auto piece = records_.content().first(std::min(out.size(), records_.content().size()));
      std::copy(piece.begin(), piece.end(), out.begin());
      const auto len = static_cast<ptrdiff_t>(piece.size());
      records_.consume(piece.size());
      return len;
    }
    if (type != ContentType::kHandshake) records_.fail(Alert::kUnexpectedMessage);
    if (records_.failed() || !answer_hello_request()) break;
  }
  return records_.closed_by_peer() && !records_.failed() ? 0 : -1;
}

int Client::shutdown() {
  if (!open()) return -1;
  channel_.hurry(kShutdownLimitMs);
  if (state_ != State::kClosing) {
    state_ = State::kClosing;
    if (!records_.write_warning(Alert::kCloseNotify) || !records_.flush()) return -1;
    return records_.closed_by_peer() ? 1 : 0;
  }
  std::array<uint8_t, 512> dropped;
  ptrdiff_t n = 0;
  do {
    n = read(dropped);
  } while (n > 0);
  wipe(dropped);
  return n == 0 ? 1 : -1;
}

}  // namespace tq::tls
