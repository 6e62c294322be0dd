#include "openssl_client.hpp"

#include <dlfcn.h>
#include <openssl/ssl.h>

#include <array>
#include <cstdio>
#include <cstdlib>

namespace {

void require(bool held, const char* what) {
  if (held) return;
  static_cast<void>(std::fprintf(stderr, "tls_bench: libssl's %s failed\n", what));
  std::exit(1);
}

template <typename Function>
Function* look_up(const char* name) {
  static void* const library = dlopen("libssl.so.3", RTLD_NOW | RTLD_LOCAL);
  require(library != nullptr, "loading");
  void* const found = dlsym(library, name);
  require(found != nullptr, name);
  return reinterpret_cast<Function*>(found);
}

// A function of libssl, looked up once.
#define LIBSSL(name)                                                     \
  ([]() -> decltype(&name) {                                             \
    static decltype(&name) const found = look_up<decltype(name)>(#name); \
    return found;                                                        \
  }())

SSL_CTX* make_context() {
  SSL_CTX* const ctx = LIBSSL(SSL_CTX_new)(LIBSSL(TLS_client_method)());
  require(ctx != nullptr, "SSL_CTX_new");
  LIBSSL(SSL_CTX_ctrl)(ctx, SSL_CTRL_SET_MAX_PROTO_VERSION, TLS1_2_VERSION, nullptr);
  LIBSSL(SSL_CTX_set_verify)(ctx, SSL_VERIFY_NONE, nullptr);
  require(LIBSSL(SSL_CTX_set_cipher_list)(ctx, "AES128-SHA256") == 1, "SSL_CTX_set_cipher_list");
  return ctx;
}

}  // namespace

std::string openssl_exchange(int fd, const std::string& request, Context context) {
  static SSL_CTX* const kept = make_context();
  SSL_CTX* const ctx = context == Context::kKept ? kept : make_context();
  SSL* const ssl = LIBSSL(SSL_new)(ctx);
  require(LIBSSL(SSL_set_fd)(ssl, fd) == 1, "SSL_set_fd");
  require(LIBSSL(SSL_connect)(ssl) == 1, "SSL_connect");
  const int len = static_cast<int>(request.size());
  require(LIBSSL(SSL_write)(ssl, request.data(), len) == len, "SSL_write");
  std::string answer;
  std::array<char, 2048> piece;
  int n = 0;
  while ((n = LIBSSL(SSL_read)(ssl, piece.data(), piece.size())) > 0)
    answer.append(piece.data(), static_cast<size_t>(n));
  require(LIBSSL(SSL_get_error)(ssl, n) == SSL_ERROR_ZERO_RETURN, "SSL_read");
  require(LIBSSL(SSL_shutdown)(ssl) == 1, "SSL_shutdown");
  LIBSSL(SSL_free)(ssl);
  if (ctx != kept) LIBSSL(SSL_CTX_free)(ctx);
  return answer;
}
