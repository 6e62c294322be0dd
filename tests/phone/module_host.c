/* Loads libtqreader.so the way the phone does, into an engine of its own: module_host LIBRARY [scan]
   Tried are a read on worker threads and the ends of environments, with calls queued and reads under way.
   With `scan`, and no tool that has a heap of its own, what they leave on the heap is looked at. */
#include <arpa/inet.h>
#include <dlfcn.h>
#include <sys/socket.h>
#include <unistd.h>

#include "../../tools/ohos/engine.h"
#include "tqreader.h"

enum { kPatienceMs = 30000 };
static const char kSecret[] = "ATAD-LANOSREP"; /* written backwards, so that it stands nowhere else */

static int g_num_calls, g_num_results, g_scans;
static int32_t g_code;

static double on_call(const char* text) {
  (void)text;
  ++g_num_calls;
  return 1.7e12;
}
static double on_result(const char* text) {
  ++g_num_results;
  g_code = atoi(strstr(text, "\"code\":") + 7);
  return on_call(text);
}

#define WAIT_UNTIL(condition) \
  for (int ms = 0; !(condition); ++ms) expect(ms < kPatienceMs, #condition), usleep(1000)

/* A server that takes connections and is silent: its port. */
static int silent_server(void) {
  struct sockaddr_in address = {.sin_family = AF_INET, .sin_addr.s_addr = htonl(INADDR_LOOPBACK)};
  socklen_t size = sizeof address;
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  expect(bind(fd, (struct sockaddr*)&address, size) == 0 && listen(fd, 100) == 0, "listen");
  expect(getsockname(fd, (struct sockaddr*)&address, &size) == 0, "getsockname");
  return ntohs(address.sin_port);
}

static napi_env open_environment(int port) {
  napi_env env = begin_environment();
  expect(call(env, "getIdInfo", "") == TQ_MISSING_CALL, "no read before the configuration");
  expect(call(env, "initSdk", "siiissisiis", "SPECIMEN0SPECIMEN000", 0, 1, 268, "", "x.y", 1, "127.0.0.1",
              port, 0, "SN") == TQ_OK,
         "initSdk");
  const char* names[] = {"registerCardCallback", "registerMonitorCallback", "registerTimestampCallback"};
  for (int i = 0; i < 3; ++i) expect(call(env, names[i], "f", on_call) == TQ_OK, names[i]);
  expect(call(env, "registerResultCallback", "f", on_result) == TQ_OK, "registerResultCallback");
  return env;
}

/* Is the secret anywhere on the heap? */
static int secret_is_left(void) {
  char line[512];
  int found = 0;
  FILE* maps = fopen("/proc/self/maps", "r");
  while (fgets(line, sizeof line, maps) != NULL) {
    unsigned long from = 0, to = 0;
    char rights[8];
    expect(sscanf(line, "%lx-%lx %7s", &from, &to, rights) == 3, "a row of maps");
    if (strncmp(rights, "rw", 2) != 0 || strstr(line, "[heap]") == NULL) continue;
    for (const char* at = (const char*)from; at + sizeof kSecret < (const char*)to; ++at) {
      size_t same = 0;
      while (same < sizeof kSecret - 1 && at[same] == kSecret[sizeof kSecret - 2 - same]) ++same;
      found |= same == sizeof kSecret - 1;
    }
  }
  fclose(maps);
  return found;
}

static int num_threads(void) {
  int count = 0;
  char line[128];
  FILE* status = fopen("/proc/self/status", "r");
  while (fgets(line, sizeof line, status) != NULL) sscanf(line, "Threads: %d", &count);
  fclose(status);
  return count;
}

static __typeof__(&cardCallback) g_card;
static __typeof__(&shareMonitorDataCallback) g_monitor;
static __typeof__(&shareResultCallback) g_result;
static __typeof__(&tq_mem_malloc) g_malloc;
static __typeof__(&shareGetNowTimeCallback) g_time;

static void* ask_time(void* out) {
  *(int64_t*)out = g_time();
  return NULL;
}
/* What the time function gives a thread that is no worker. */
static int64_t time_elsewhere(napi_env env, int num_threads_before) {
  pthread_t thread;
  int64_t time = -1;
  expect(pthread_create(&thread, NULL, ask_time, &time) == 0, "a thread");
  if (env != NULL) WAIT_UNTIL((run_loop(env), num_threads() == num_threads_before));
  pthread_join(thread, NULL);
  return time;
}

static void* ask(void* unused) {
  const monitor_param record = {
      .reqid = "1", .nfc_err_cmd = "", .device_id = "SN", .appid = "", .sod_file = ""};
  char answer[100];
  expect(g_monitor(&record, answer, sizeof answer) == 0, "no answer");
  return unused;
}

/* The newest environment ends with four calls that wait for it, of which one is waited for. */
static void end_with_calls(napi_env env, ending how) {
  info_data result = {
      .code = -1, .flag = TQ_RESULT_TEXT, .length = sizeof kSecret, .data = g_malloc(sizeof kSecret)};
  for (size_t i = 0; i < sizeof kSecret; ++i) {
    result.data[i] = i + 1 < sizeof kSecret ? (uint8_t)kSecret[sizeof kSecret - 2 - i] : 0;
  }
  expect(!g_scans || secret_is_left(), "a secret on the heap is found");
  pthread_t thread;
  expect(g_card(result.data, 4, 1, NULL) == 0 && g_card(result.data, 4, 2, NULL) == 0, "commands are taken");
  g_result(&result);
  expect(pthread_create(&thread, NULL, ask, NULL) == 0, "a thread");
  WAIT_UNTIL(num_queued(env) == 4);
  end_environment(env, how);
  pthread_join(thread, NULL);
  expect(!g_scans || !secret_is_left(), "nothing personal is left");
}

int main(int argc, char** argv) {
  expect(argc == 2 || argc == 3, "usage: module_host LIBRARY [scan]");
  g_scans = argc == 3;
  void* library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  expect(library != NULL, library == NULL ? dlerror() : "");
  expect(g_module != NULL && strcmp(g_module->nm_modname, "tqreader") == 0 && g_module->nm_version == 1,
         "the module tqreader has registered");
  expect(dlopen(argv[1], RTLD_NOW) == library, "loaded again, it is the same");
  g_card = (__typeof__(g_card))dlsym(library, "cardCallback");
  g_monitor = (__typeof__(g_monitor))dlsym(library, "shareMonitorDataCallback");
  g_result = (__typeof__(g_result))dlsym(library, "shareResultCallback");
  g_time = (__typeof__(g_time))dlsym(library, "shareGetNowTimeCallback");
  g_malloc = (__typeof__(g_malloc))dlsym(library, "tq_mem_malloc");
  expect(time_elsewhere(NULL, 0) == 0, "without an environment there is no time");
  int num_before = num_threads();                  /* with the thread that a tool starts beside the first */
  for (int ms = 0; ms < 300; ++ms, usleep(1000)) { /* one that has been joined may still be counted */
    if (num_threads() < num_before) num_before = num_threads();
  }

  /* Calls from outside a read go to the newest environment that has the function; cancels to one's own read.
   */
  const int port = silent_server();
  napi_env env, first = open_environment(port), second = open_environment(port), third = begin_environment();
  expect(g_card((const uint8_t*)"", 0, 1, NULL) == 0 && num_queued(second) == 1,
         "the second environment is asked");
  end_environment(second, kHooksThenCalls);
  expect(g_card((const uint8_t*)"", 0, 1, NULL) == 0 && num_queued(first) == 1, "and then the first");
  expect(time_elsewhere(first, num_before) == 1700000000000,
         "its time function answers a thread that is no worker");
  expect(call(first, "getIdInfo", "") == TQ_OK && call(first, "getIdInfo", "") == TQ_OK, "one takes over");
  WAIT_UNTIL((run_loop(first), g_num_calls > 2));
  call(third, "cancelCard", "i", 0);
  for (int ms = 0; ms < 100; ++ms) run_loop(first), usleep(1000);
  expect(num_threads() > num_before && g_num_results == 0,
         "another environment's cancel leaves a read alone");
  call(first, "cancelCard", "i", 0);
  WAIT_UNTIL((run_loop(first), num_threads() == num_before && num_queued(first) == 0));
  expect(g_num_results == 1 && g_code == TQ_EXCHANGE_FAILED, "its own cancel ends it, with one result");
  end_environment(third, kHooksThenCalls);
  end_environment(first, kHooksThenCalls);

  for (int i = 0; i < 3 * kNumEndings; ++i) {
    WAIT_UNTIL(num_threads() == num_before);
    env = open_environment(port);
    const int num_calls = g_num_calls;
    end_with_calls(env, (ending)(i % kNumEndings));
    expect(g_num_calls == num_calls, "no function of JavaScript is called at the end");

    /* With a read that has asked for the time, that waits for the server, that has just ended. */
    env = open_environment(port);
    expect(call(env, "getIdInfo", "") == TQ_OK, "a read starts");
    WAIT_UNTIL(num_queued(env) > 0);
    if (i / kNumEndings > 0) WAIT_UNTIL((run_loop(env), g_num_calls > num_calls + 1));
    if (i / kNumEndings > 1) {
      call(env, "cancelCard", "i", 0);
      WAIT_UNTIL(num_threads() == num_before);
    }
    end_environment(env, (ending)(i % kNumEndings));
  }
  WAIT_UNTIL(num_threads() == num_before);
  expect(g_num_results == 1, "reads whose environment has ended are silent");
  printf("loaded (%s), environments ended in %d ways: passed\n", argv[1], kNumEndings);
  return 0;
}
