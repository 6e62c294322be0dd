#include "tls/handshake_reader.hpp"

#include <algorithm>
#include <array>

#include "util/byte_cursor.hpp"

namespace tq::tls {

// Up to `n` bytes of the handshake stream, at least one; they stay where they are until they are consumed.
bool HandshakeReader::pull(size_t n, std::span<const uint8_t>& piece) {
  ContentType type{};
  if (!records_.wait_for_content(type)) return false;
  if (type != ContentType::kHandshake) return records_.fail(Alert::kUnexpectedMessage);
  piece = records_.content().first(std::min(n, records_.content().size()));
  return true;
}

bool HandshakeReader::pull_exactly(std::span<uint8_t> out) {
  while (!out.empty()) {
    std::span<const uint8_t> piece;
    if (!pull(out.size(), piece)) return false;
    std::copy(piece.begin(), piece.end(), out.begin());
    out = out.subspan(piece.size());
    records_.consume(piece.size());
  }
  return true;
}

// The header of any message. A HelloRequest is counted, and stays out of the transcript.
bool HandshakeReader::header(HandshakeType& type) {
  std::array<uint8_t, 4> header{};
  if (!pull_exactly(header)) return false;
  type = static_cast<HandshakeType>(header[0]);
  remaining_ = size_t{header[1]} << 16 | size_t{header[2]} << 8 | header[3];
  if (type == HandshakeType::kHelloRequest) {
    if (remaining_ != 0) return fail(Alert::kDecodeError);
    return ++num_hello_requests_ <= kMaxHelloRequests || fail(Alert::kUnexpectedMessage);
  }
  if (remaining_ > kMaxMessageLen) return fail(Alert::kIllegalParameter);
  transcript_.update(header);
  return true;
}

bool HandshakeReader::next(HandshakeType& type) {
  do {
    if (!header(type)) return false;
  } while (type == HandshakeType::kHelloRequest);
  return true;
}

bool HandshakeReader::expect(HandshakeType type) {
  HandshakeType found{};
  return next(found) && (found == type || fail(Alert::kUnexpectedMessage));
}

bool HandshakeReader::take_hello_request() {
  HandshakeType type{};
  return header(type) && (type == HandshakeType::kHelloRequest || fail(Alert::kUnexpectedMessage));
}

bool HandshakeReader::bytes(std::span<uint8_t> out) {
  if (out.size() > remaining_) return fail(Alert::kDecodeError);
  if (!pull_exactly(out)) return false;
  transcript_.update(out);
  remaining_ -= out.size();
  return true;
}

bool HandshakeReader::number(size_t width, uint32_t& value) {
  std::array<uint8_t, sizeof value> room{};
  const auto field = std::span(room).first(width);
  return bytes(field) && ByteReader(field).number(width, value);
}

bool HandshakeReader::skip(size_t n) {
  if (n > remaining_) return fail(Alert::kDecodeError);
  while (n > 0) {
    std::span<const uint8_t> piece;
    if (!pull(n, piece)) return false;
    transcript_.update(piece);
    remaining_ -= piece.size();
    n -= piece.size();
    records_.consume(piece.size());
  }
  return true;
}

bool HandshakeReader::end() {
  return remaining_ == 0 || fail(Alert::kDecodeError);
}

bool HandshakeReader::change_cipher_spec() {
  ContentType type{};
  if (!records_.wait_for_content(type)) return false;
  while (type == ContentType::kHandshake) {
    if (!take_hello_request() || !records_.wait_for_content(type)) return false;
  }
  const auto content = records_.content();
  if (type != ContentType::kChangeCipherSpec) return fail(Alert::kUnexpectedMessage);
  if (content.size() != 1 || content[0] != 1) return fail(Alert::kDecodeError);
  records_.consume(content.size());
  return true;
}

}  // namespace tq::tls
