#include "tls/handshake_messages.hpp"

#include <algorithm>
#include <iterator>

namespace tq::tls {

namespace {

enum Extension : uint32_t {
  kServerName = 0,
  kSignatureAlgorithms = 13,
  kRenegotiationInfo = 0xFF01,
};

// What certificates may be signed with (RFC 5246 section 7.4.1.4.1, RFC 8446 section 4.2.3). None is
// verified, so the list is long: some servers have only a chain of one of these, and refuse when it is
// missing.
constexpr uint16_t kSignatureSchemes[] = {
    0x0401, 0x0501, 0x0601,  // RSA PKCS #1 with SHA-256, -384, -512
    0x0804, 0x0805, 0x0806,  // RSA-PSS with SHA-256, -384, -512
    0x0403, 0x0503, 0x0603,  // ECDSA with SHA-256, -384, -512
    0x0301, 0x0201, 0x0203,  // RSA with SHA-224, SHA-1; ECDSA with SHA-1
};

constexpr size_t kSchemesLen = 2 * std::size(kSignatureSchemes);
constexpr size_t kSuitesLen = 2 * std::size(kSuites);

void write_extensions(ByteWriter& w, std::span<const uint8_t> server_name) {
  const size_t name_len = server_name.empty() ? 0 : 9 + server_name.size();
  w.number(static_cast<uint32_t>(name_len + 5 + 6 + kSchemesLen), 2);
  if (!server_name.empty()) {
    w.number(kServerName, 2);
    w.number(static_cast<uint32_t>(server_name.size() + 5), 2);
    w.number(static_cast<uint32_t>(server_name.size() + 3), 2);
    w.u8(0);  // host_name
    w.number(static_cast<uint32_t>(server_name.size()), 2);
    w.bytes(server_name);
  }
  w.number(kRenegotiationInfo, 2);
  w.number(1, 2);
  w.u8(0);  // an initial handshake
  w.number(kSignatureAlgorithms, 2);
  w.number(kSchemesLen + 2, 2);
  w.number(kSchemesLen, 2);
  for (const uint16_t scheme : kSignatureSchemes) w.number(scheme, 2);
}

// One of the two extensions that a server may answer with, each once and with the one content that it can
// have.
bool read_extension(HandshakeReader& in, bool name_was_sent, bool& name_seen, bool& renegotiation_seen) {
  uint32_t type = 0;
  uint32_t len = 0;
  if (!in.number(2, type) || !in.number(2, len)) return false;
  if (type == kServerName && name_was_sent) {
    if (name_seen || len != 0) return in.fail(Alert::kDecodeError);
    name_seen = true;
    return true;
  }
  if (type != kRenegotiationInfo) return in.fail(Alert::kUnsupportedExtension);
  uint32_t verify_data_len = 0;
  if (renegotiation_seen) return in.fail(Alert::kDecodeError);
  renegotiation_seen = true;
  if (len != 1) return in.fail(Alert::kHandshakeFailure);
  return in.number(1, verify_data_len) && (verify_data_len == 0 || in.fail(Alert::kHandshakeFailure));
}

bool read_extensions(HandshakeReader& in, bool name_was_sent) {
  if (in.remaining() == 0) return true;
  uint32_t len = 0;
  if (!in.number(2, len)) return false;
  if (len != in.remaining()) return in.fail(Alert::kDecodeError);
  bool name_seen = false;
  bool renegotiation_seen = false;
  while (in.remaining() > 0) {
    if (!read_extension(in, name_was_sent, name_seen, renegotiation_seen)) return false;
  }
  return true;
}

}  // namespace

void write_client_hello(ByteWriter& w, std::span<const uint8_t, kRandomLen> client_random,
                        std::span<const uint8_t> server_name) {
  std::array<uint8_t, kMaxClientHelloLen> room;
  ByteWriter body(room);
  body.number(kTls12, 2);
  body.bytes(client_random);
  body.u8(0);  // no session to resume
  body.number(kSuitesLen, 2);
  for (const Suite& suite : kSuites) body.number(suite.id, 2);
  body.number(0x0100, 2);  // one compression method: none
  write_extensions(body, server_name);

  w.u8(static_cast<unsigned>(HandshakeType::kClientHello));
  w.number(static_cast<uint32_t>(body.size()), 3);
  w.bytes(body.written());
}

bool read_server_hello(HandshakeReader& in, bool name_was_sent, std::span<uint8_t, kRandomLen> server_random,
                       const Suite*& suite) {
  constexpr uint32_t kMaxSessionIdLen = 32;
  uint32_t version = 0;
  uint32_t session_id_len = 0;
  uint32_t suite_id = 0;
  uint32_t compression = 0;
  if (!in.expect(HandshakeType::kServerHello) || !in.number(2, version)) return false;
  if (version != kTls12) return in.fail(Alert::kProtocolVersion);
  if (!in.bytes(server_random) || !in.number(1, session_id_len)) return false;
  if (session_id_len > kMaxSessionIdLen) return in.fail(Alert::kDecodeError);
  if (!in.skip(session_id_len) || !in.number(2, suite_id) || !in.number(1, compression)) return false;
  suite = std::find_if(std::begin(kSuites), std::end(kSuites),
                       [suite_id](const Suite& offered) { return offered.id == suite_id; });
  if (suite == std::end(kSuites) || compression != 0) return in.fail(Alert::kIllegalParameter);
  return read_extensions(in, name_was_sent) && in.end();
}

bool read_certificates(HandshakeReader& in, ServerKey& out) {
  uint32_t list_len = 0;
  uint32_t len = 0;
  if (!in.expect(HandshakeType::kCertificate) || !in.number(3, list_len)) return false;
  if (list_len != in.remaining()) return in.fail(Alert::kDecodeError);
  if (list_len == 0) return in.fail(Alert::kBadCertificate);
  if (!in.number(3, len)) return false;
  if (len == 0 || len > in.remaining()) return in.fail(Alert::kDecodeError);
  if (len > kMaxCertificateLen) return in.fail(Alert::kBadCertificate);
  out.certificate.emplace(len);
  if (!*out.certificate) return in.fail(Alert::kInternalError);
  if (!in.bytes(out.certificate->bytes())) return false;
  while (in.remaining() > 0) {
    if (!in.number(3, len)) return false;
    if (len == 0) return in.fail(Alert::kDecodeError);
    if (!in.skip(len)) return false;
  }
  switch (read_certificate_key(out.certificate->bytes(), out.key)) {
    case KeyResult::kFound:
      return in.end();
    case KeyResult::kUnsupported:
      return in.fail(Alert::kUnsupportedCertificate);
    case KeyResult::kMalformed:
      break;
  }
  return in.fail(Alert::kBadCertificate);
}

bool read_certificate_request(HandshakeReader& in) {
  uint32_t types_len = 0;
  uint32_t schemes_len = 0;
  uint32_t names_len = 0;
  if (!in.number(1, types_len)) return false;
  if (types_len == 0) return in.fail(Alert::kDecodeError);
  if (!in.skip(types_len) || !in.number(2, schemes_len)) return false;
  if (schemes_len == 0 || schemes_len % 2 != 0) return in.fail(Alert::kDecodeError);
  if (!in.skip(schemes_len) || !in.number(2, names_len)) return false;
  if (names_len != in.remaining()) return in.fail(Alert::kDecodeError);
  while (in.remaining() > 0) {
    uint32_t name_len = 0;
    if (!in.number(2, name_len)) return false;
    if (name_len == 0) return in.fail(Alert::kDecodeError);
    if (!in.skip(name_len)) return false;
  }
  return in.end();
}

}  // namespace tq::tls
