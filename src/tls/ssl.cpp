#include "tls/ssl.h"

#include <new>

#include "tls/client.hpp"
#include "tls/random_device.hpp"
#include "tls/socket_channel.hpp"
#include "util/memory.h"
#include "util/secret.hpp"

struct tq_ssl_method {
  uint32_t version;
};

struct tq_ssl_ctx {
  const SSL_METHOD* method;
};

struct tq_ssl {
  tq::tls::SocketChannel channel;
  tq::tls::RandomDevice random{};
  tq::tls::Client client{channel, random};
};

namespace {

constexpr SSL_METHOD kClientMethod = {tq::tls::kTls12};

template <typename T>
T* make() {
  void* const block = tq_mem_malloc(sizeof(T));
  return block == nullptr ? nullptr : new (block) T{};
}

template <typename T>
void release(T* object) {
  if (object == nullptr) return;
  object->~T();
  tq::wipe(static_cast<void*>(object), sizeof(T));
  tq_mem_free(object);
}

}  // namespace

extern "C" {

int SSL_library_init(void) {
  return 1;
}

const SSL_METHOD* SSLv23_client_method(void) {
  return &kClientMethod;
}

SSL_CTX* SSL_CTX_new(const SSL_METHOD* method) {
  if (method == nullptr) return nullptr;
  SSL_CTX* const ctx = make<SSL_CTX>();
  if (ctx != nullptr) ctx->method = method;
  return ctx;
}

void SSL_CTX_free(SSL_CTX* ctx) {
  release(ctx);
}

SSL* SSL_new(SSL_CTX* ctx) {
  return ctx == nullptr ? nullptr : make<SSL>();
}

void SSL_free(SSL* ssl) {
  release(ssl);
}

int SSL_set_fd(SSL* ssl, int fd) {
  if (ssl == nullptr || fd < 0) return 0;
  ssl->channel.set_fd(fd);
  return 1;
}

int SSL_set_tlsext_host_name(SSL* ssl, const char* name) {
  if (ssl == nullptr) return 0;
  return ssl->client.set_server_name(name == nullptr ? "" : name) ? 1 : 0;
}

void SSL_set_time_limit(SSL* ssl, int64_t milliseconds) {
  if (ssl != nullptr) ssl->channel.set_time_limit(milliseconds);
}

int SSL_connect(SSL* ssl) {
  return ssl != nullptr && ssl->client.connect() ? 1 : -1;
}

int SSL_write(SSL* ssl, const void* bytes, int length) {
  if (ssl == nullptr || length < 0 || (bytes == nullptr && length > 0)) return -1;
  const auto* const first = static_cast<const uint8_t*>(bytes);
  return ssl->client.write({first, static_cast<size_t>(length)}) ? length : -1;
}

int SSL_read(SSL* ssl, void* out, int capacity) {
  if (ssl == nullptr || out == nullptr || capacity <= 0) return -1;
  return static_cast<int>(ssl->client.read({static_cast<uint8_t*>(out), static_cast<size_t>(capacity)}));
}

int SSL_shutdown(SSL* ssl) {
  return ssl == nullptr ? -1 : ssl->client.shutdown();
}

}  // extern "C"
