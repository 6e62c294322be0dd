#include "tls/handshake.hpp"

#include <array>

#include "crypto/constant_time.hpp"
#include "tls/handshake_messages.hpp"
#include "tls/key_schedule.hpp"
#include "tls/premaster.hpp"
#include "util/byte_cursor.hpp"
#include "util/secret.hpp"

namespace tq::tls {

namespace {

class Handshake {
 public:
  Handshake(RecordLayer& records, HandshakeReader& in, RandomSource& random,
            std::span<const uint8_t> server_name)
      : records_(records), in_(in), random_(random), server_name_(server_name) {}

  bool run() {
    return send_client_hello() && receive_server_hello() && read_certificates(in_, server_key_) &&
           receive_hello_done() && send_certificate() && send_key_exchange() && send_change_cipher_spec() &&
           send_finished() && records_.flush() && receive_change_cipher_spec() && receive_finished();
  }

 private:
  bool send_client_hello();
  bool receive_server_hello();
  bool receive_hello_done();
  bool send_certificate();
  bool send_key_exchange();
  bool send_change_cipher_spec();
  bool send_finished();
  bool receive_change_cipher_spec();
  bool receive_finished();

  bool send(std::span<const uint8_t> message);
  void verify_data(Side side, std::span<uint8_t, kVerifyDataLen> out);

  RecordLayer& records_;
  HandshakeReader& in_;
  RandomSource& random_;
  std::span<const uint8_t> server_name_;
  HelloRandoms randoms_{};
  const Suite* suite_ = nullptr;
  ServerKey server_key_;
  bool certificate_requested_ = false;
  Secret<kMasterLen> master_;
};

bool Handshake::send(std::span<const uint8_t> message) {
  in_.transcript().update(message);
  return records_.write(ContentType::kHandshake, message);
}

bool Handshake::send_client_hello() {
  if (!random_.fill(randoms_.client)) return records_.fail(Alert::kInternalError);
  std::array<uint8_t, kHandshakeHeaderLen + kMaxClientHelloLen> room;
  ByteWriter message(room);
  write_client_hello(message, randoms_.client, server_name_);
  if (!message.ok()) return records_.fail(Alert::kInternalError);
  return send(message.written()) && records_.flush();
}

bool Handshake::receive_server_hello() {
  if (!read_server_hello(in_, !server_name_.empty(), randoms_.server, suite_)) return false;
  records_.fix_version();
  return true;
}

bool Handshake::receive_hello_done() {
  HandshakeType type{};
  if (!in_.next(type)) return false;
  if (type == HandshakeType::kCertificateRequest) {
    certificate_requested_ = true;
    if (!read_certificate_request(in_) || !in_.next(type)) return false;
  }
  if (type != HandshakeType::kServerHelloDone) return in_.fail(Alert::kUnexpectedMessage);
  return in_.end();
}

// We have none, and say so when asked.
bool Handshake::send_certificate() {
  constexpr uint8_t kEmptyList[] = {static_cast<uint8_t>(HandshakeType::kCertificate), 0, 0, 3, 0, 0, 0};
  return !certificate_requested_ || send(kEmptyList);
}

bool Handshake::send_key_exchange() {
  Secret<kPremasterLen> premaster;
  if (!make_premaster(random_, premaster.bytes())) return records_.fail(Alert::kInternalError);
  const size_t len = server_key_.key.modulus.size();
  Secret<kMaxRsaBits / 8> encrypted;
  const auto ciphertext = encrypted.bytes().first(len);
  if (!encrypt_premaster(server_key_.key, premaster.bytes(), random_, ciphertext)) {
    return records_.fail(Alert::kInternalError);
  }
  std::array<uint8_t, kHandshakeHeaderLen + 2 + kMaxRsaBits / 8> room;
  ByteWriter message(room);
  message.u8(static_cast<unsigned>(HandshakeType::kClientKeyExchange));
  message.number(static_cast<uint32_t>(2 + len), 3);
  message.number(static_cast<uint32_t>(len), 2);
  message.bytes(ciphertext);
  derive_master_secret(premaster.bytes(), randoms_, master_.bytes());
  server_key_.certificate.reset();
  return send(message.written());
}

bool Handshake::send_change_cipher_spec() {
  constexpr uint8_t kMessage[] = {1};
  if (!records_.write(ContentType::kChangeCipherSpec, kMessage)) return false;
  KeyBlock(*suite_, master_.bytes(), randoms_).start_client_side(records_.writing());
  return true;
}

void Handshake::verify_data(Side side, std::span<uint8_t, kVerifyDataLen> out) {
  Sha256 so_far = in_.transcript();
  std::array<uint8_t, Sha256::kDigestLen> digest;
  so_far.finish(digest);
  derive_verify_data(side, master_.bytes(), digest, out);
}

bool Handshake::send_finished() {
  std::array<uint8_t, kHandshakeHeaderLen + kVerifyDataLen> message = {
      static_cast<uint8_t>(HandshakeType::kFinished), 0, 0, kVerifyDataLen};
  verify_data(Side::kClient, std::span(message).last<kVerifyDataLen>());
  return send(message);
}

bool Handshake::receive_change_cipher_spec() {
  if (!in_.change_cipher_spec()) return false;
  KeyBlock(*suite_, master_.bytes(), randoms_).start_server_side(records_.reading());
  return true;
}

bool Handshake::receive_finished() {
  Secret<kVerifyDataLen> expected;
  Secret<kVerifyDataLen> received;
  verify_data(Side::kServer, expected.bytes());
  if (!in_.expect(HandshakeType::kFinished) || !in_.bytes(received.bytes()) || !in_.end()) return false;
  return ct_equal(expected.bytes(), received.bytes()) || in_.fail(Alert::kDecryptError);
}

}  // namespace

bool run_handshake(RecordLayer& records, HandshakeReader& in, RandomSource& random,
                   std::span<const uint8_t> server_name) {
  return Handshake(records, in, random, server_name).run();
}

}  // namespace tq::tls
