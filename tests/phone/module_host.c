/* Loads the phone's libtqreader.so the way the phone does, on the phone's C library: module_host LIBRARY
   Of the JavaScript engine it has only the function that modules register with; the stub libraries beside it
   have the other names. What the library does without JavaScript is then tried: text, digests, and reads on
   worker threads. */

#include <arpa/inet.h>
#include <dlfcn.h>
#include <napi/native_api.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include "tqreader.h"

enum { kPatience = 30 /* seconds that the results of reads may take */ };

static int g_num_registered;
static napi_module* g_module;

void napi_module_register(napi_module* module) {
  ++g_num_registered;
  g_module = module;
}

static void expect(int holds, const char* what) {
  if (holds) return;
  fprintf(stderr, "module_host: failed: %s\n", what);
  exit(1);
}

static void* symbol(void* library, const char* name) {
  void* address = dlsym(library, name);
  expect(address != NULL, name);
  return address;
}

/* --- a read, from its start to its result
 * --------------------------------------------------------------------------- */

static pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t g_changed = PTHREAD_COND_INITIALIZER;
static int g_num_results;
static int32_t g_code;

static int32_t card(const uint8_t* apdu, uint32_t length, uint8_t serial, void* data) {
  (void)apdu, (void)length, (void)serial, (void)data;
  expect(0, "no command goes to the card before the server has answered");
  return -1;
}

static int32_t monitor(const monitor_param* param, char* out, uint32_t size) {
  (void)param;
  expect(size > 2, "room for a monitor text");
  memcpy(out, "{}", 2);
  return 2;
}

static int64_t now(void) {
  return (int64_t)time(NULL) * 1000;
}

static void (*g_free)(void* block);

static void result(info_data* info) {
  pthread_mutex_lock(&g_mutex);
  ++g_num_results;
  g_code = info->code;
  pthread_cond_signal(&g_changed);
  pthread_mutex_unlock(&g_mutex);
  g_free(info->data);
}

/* A port of this machine where nobody listens: it was free a moment ago. */
static int silent_port(void) {
  struct sockaddr_in address = {.sin_family = AF_INET, .sin_addr.s_addr = htonl(INADDR_LOOPBACK)};
  socklen_t size = sizeof address;
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  expect(bind(fd, (struct sockaddr*)&address, size) == 0, "bind");
  expect(getsockname(fd, (struct sockaddr*)&address, &size) == 0, "getsockname");
  close(fd);
  return ntohs(address.sin_port);
}

static int32_t wait_for_result(void) {
  struct timespec limit;
  clock_gettime(CLOCK_REALTIME, &limit);
  limit.tv_sec += kPatience;
  pthread_mutex_lock(&g_mutex);
  while (g_num_results == 0) {
    expect(pthread_cond_timedwait(&g_changed, &g_mutex, &limit) == 0, "a result in time");
  }
  pthread_mutex_unlock(&g_mutex);
  return g_code;
}

/* The first read is superseded by the second, which cannot reach its server: one result, of the second. */
static void try_reads(void* library) {
  __typeof__(&share_init) init = symbol(library, "share_init");
  __typeof__(&id_card_decode) decode = symbol(library, "id_card_decode");
  __typeof__(&share_register_card_callback) set_card = symbol(library, "share_register_card_callback");
  __typeof__(&share_register_monitor_callback) set_monitor =
      symbol(library, "share_register_monitor_callback");
  __typeof__(&share_register_timestamp_callback) set_time =
      symbol(library, "share_register_timestamp_callback");
  __typeof__(&share_register_result_callback) set_result = symbol(library, "share_register_result_callback");
  g_free = (void (*)(void*))symbol(library, "tq_mem_free");

  static SessionConfig cfg;
  static const uint8_t kStickCardId[TQ_STICK_CARD_ID_LENGTH];
  expect(decode(&cfg, kStickCardId) < 0, "no read without a configuration");
  expect(init(&cfg, "tooshort", 255, 0, 1, 0, 0, TQ_ENVIRONMENT_A, "SN", "", "", "com.example", 1,
              "127.0.0.1", 1) == TQ_BAD_APPID,
         "a short appid is refused");
  expect(init(&cfg, "APPID678901234567890", 255, 0, 1, 0, 0, TQ_ENVIRONMENT_A, "SN", "", "", "com.example", 1,
              "127.0.0.1", silent_port()) == TQ_OK,
         "share_init");
  expect(set_card(&cfg, card, NULL) == TQ_OK && set_monitor(&cfg, monitor) == TQ_OK &&
             set_time(&cfg, now) == TQ_OK && set_result(&cfg, result) == TQ_OK,
         "registrations");
  expect(decode(&cfg, kStickCardId) == TQ_OK, "a read starts");
  usleep(100 * 1000);
  expect(decode(&cfg, kStickCardId) == TQ_OK, "another read starts");
  expect(wait_for_result() == TQ_CONNECT_FAILED, "the result tells that the server could not be reached");
  usleep(100 * 1000);
  expect(g_num_results == 1, "the superseded read is silent");
}

/* --- what needs no thread
 * ------------------------------------------------------------------------------------------- */

static void try_routines(void* library) {
  /* GB/T 32905, appendix A, example 1. */
  static const uint8_t kDigest[32] = {0x66, 0xc7, 0xf0, 0xf4, 0x62, 0xee, 0xed, 0xd9, 0xd1, 0xf2, 0xd4,
                                      0x6b, 0xdc, 0x10, 0xe4, 0xe2, 0x41, 0x67, 0xc4, 0x87, 0x5c, 0xf2,
                                      0xf7, 0xa2, 0x29, 0x7d, 0xa0, 0x2b, 0x8f, 0x4b, 0xa8, 0xe0};
  /* GB/T 32907, appendix A, example 2: a million encryptions in a row, with the plaintext as the key. */
  static const uint8_t kBlock[16] = {0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef,
                                     0xfe, 0xdc, 0xba, 0x98, 0x76, 0x54, 0x32, 0x10};
  static const uint8_t kMillion[16] = {0x59, 0x52, 0x98, 0xc7, 0xc6, 0xfd, 0x27, 0x1f,
                                       0x04, 0x02, 0xf8, 0x04, 0xc3, 0x3d, 0x3f, 0x66};
  __typeof__(&TQ_sm3) sm3 = symbol(library, "TQ_sm3");
  __typeof__(&TQ_sm4_setkey_enc) set_key = symbol(library, "TQ_sm4_setkey_enc");
  __typeof__(&TQ_sm4_crypt_ecb) encrypt = symbol(library, "TQ_sm4_crypt_ecb");
  __typeof__(&share_getVersion) version = symbol(library, "share_getVersion");

  uint8_t digest[32];
  sm3((const uint8_t*)"abc", 3, digest);
  expect(memcmp(digest, kDigest, sizeof digest) == 0, "SM3 of abc");

  TQ_SM4_CTX key;
  uint8_t block[16];
  memcpy(block, kBlock, sizeof block);
  set_key(&key, kBlock);
  for (int i = 0; i < 1000000; ++i) encrypt(&key, 1, sizeof block, block, block);
  expect(memcmp(block, kMillion, sizeof block) == 0, "SM4, a million times");
  expect(strlen(version()) > 0, "a version");
}

int main(int argc, char** argv) {
  expect(argc == 2, "usage: module_host LIBRARY");
  void* library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  expect(library != NULL, library == NULL ? dlerror() : "");
  expect(g_num_registered == 1, "one module is registered");
  expect(strcmp(g_module->nm_modname, "tqreader") == 0, "its name is tqreader");
  expect(g_module->nm_version == 1 && g_module->nm_register_func != NULL, "it can be initialised");
  expect(dlopen(argv[1], RTLD_NOW) == library && g_num_registered == 1,
         "loaded again, it does not register again");

  try_routines(library);
  try_reads(library);
  printf("loaded, registered \"%s\" (%s), two reads: passed\n", g_module->nm_modname, argv[1]);
  return 0;
}
