#include <hilog/log.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace {

constexpr size_t kLongestFormat = 512;

void write_to_stderr(LogType, LogLevel, unsigned int, const char*, const char* line) {
  static_cast<void>(std::fprintf(stderr, "%s\n", line));
}

std::atomic<tq_host_log_sink> g_sink{&write_to_stderr};

// Copies the format without its privacy marks.
// False when it does not fit.
bool plain_format(std::string_view fmt, char (&out)[kLongestFormat]) {
  constexpr std::string_view kMarks[] = {"{public}", "{private}"};
  size_t len = 0;
  for (size_t i = 0; i < fmt.size(); ++i) {
    if (len + 1 == kLongestFormat) return false;
    out[len++] = fmt[i];
    if (fmt[i] != '%') continue;
    for (const std::string_view mark : kMarks) {
      if (fmt.substr(i + 1, mark.size()) == mark) i += mark.size();
    }
  }
  out[len] = '\0';
  return true;
}

}  // namespace

extern "C" int OH_LOG_Print(LogType type, LogLevel level, unsigned int domain, const char* tag,
                            const char* fmt, ...) {
  char format[kLongestFormat];
  if (!plain_format(fmt, format)) return -1;
  char* line = nullptr;
  va_list args;
  va_start(args, fmt);
  const int len = vasprintf(&line, format, args);
  va_end(args);
  if (len < 0) return -1;
  g_sink.load()(type, level, domain, tag, line);
  std::free(line);
  return len;
}

extern "C" void tq_host_set_log_sink(tq_host_log_sink sink) {
  g_sink.store(sink == nullptr ? &write_to_stderr : sink);
}
