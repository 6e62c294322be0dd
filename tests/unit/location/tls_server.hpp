// The server's end of a TLS connection, by OpenSSL. Its functions are looked up by name at run time: the
// client under test has functions of the same names.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <string>
#include <string_view>

#include "support/loopback_server.hpp"

namespace test {

// An SSL_ function of OpenSSL's own library.
template <typename Function>
Function* openssl(Function* /*declared*/, const char* name) {
  static void* const library = dlopen("libssl.so.3", RTLD_NOW | RTLD_LOCAL);
  EXPECT_NE(library, nullptr);
  return reinterpret_cast<Function*>(dlsym(library, name));
}
#define OPENSSL_CALL(name) ::test::openssl(static_cast<decltype(&name)>(nullptr), #name)

// A 2048-bit RSA key and a certificate that it has signed itself, offered with AES128-SHA256.
inline SSL_CTX* server_context() {
  static SSL_CTX* const ctx = [] {
    EVP_PKEY* const key = EVP_RSA_gen(2048);
    X509* const certificate = X509_new();
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate), 0);
    X509_gmtime_adj(X509_getm_notAfter(certificate), 3600);
    X509_set_pubkey(certificate, key);
    EXPECT_GT(X509_sign(certificate, key, EVP_sha256()), 0);
    SSL_CTX* const made = OPENSSL_CALL(SSL_CTX_new)(OPENSSL_CALL(TLS_server_method)());
    EXPECT_EQ(OPENSSL_CALL(SSL_CTX_use_certificate)(made, certificate), 1);
    EXPECT_EQ(OPENSSL_CALL(SSL_CTX_use_PrivateKey)(made, key), 1);
    EXPECT_EQ(OPENSSL_CALL(SSL_CTX_set_cipher_list)(made, "AES128-SHA256"), 1);
    X509_free(certificate);
    EVP_PKEY_free(key);
    return made;
  }();
  return ctx;
}

class TlsPeer {
 public:
  explicit TlsPeer(const Peer& peer) : ssl_(OPENSSL_CALL(SSL_new)(server_context())) {
    EXPECT_EQ(OPENSSL_CALL(SSL_set_fd)(ssl_, peer.fd()), 1);
    accepted_ = OPENSSL_CALL(SSL_accept)(ssl_) == 1;
  }
  ~TlsPeer() { OPENSSL_CALL(SSL_free)(ssl_); }
  TlsPeer(const TlsPeer&) = delete;
  TlsPeer& operator=(const TlsPeer&) = delete;

  bool accepted() const { return accepted_; }

  // An HTTP request whose body is a JSON object: up to its closing brace.
  std::string read_request() const {
    std::string request;
    char c = 0;
    while (request.find("\r\n\r\n") == std::string::npos || request.back() != '}') {
      if (OPENSSL_CALL(SSL_read)(ssl_, &c, 1) != 1) break;
      request.push_back(c);
    }
    return request;
  }
  void write(std::string_view text) const {
    if (text.empty()) return;
    EXPECT_EQ(OPENSSL_CALL(SSL_write)(ssl_, text.data(), static_cast<int>(text.size())),
              static_cast<int>(text.size()));
  }
  void close_notify() const { OPENSSL_CALL(SSL_shutdown)(ssl_); }
  // True when the client ends the connection as it should.
  bool ends_with_close_notify() const {
    char c = 0;
    const int n = OPENSSL_CALL(SSL_read)(ssl_, &c, 1);
    return n <= 0 && OPENSSL_CALL(SSL_get_error)(ssl_, n) == SSL_ERROR_ZERO_RETURN;
  }

 private:
  SSL* ssl_;
  bool accepted_ = false;
};

}  // namespace test
