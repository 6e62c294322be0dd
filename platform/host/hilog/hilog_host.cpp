#include <hilog/log.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace {

void write_to_stderr(LogType, LogLevel, unsigned int, const char*, const char* line) {
  static_cast<void>(std::fprintf(stderr, "%s\n", line));
}

std::atomic<tq_host_log_sink> g_sink{&write_to_stderr};

// One conversion of a format, and the length of its text there: "%{private}lld" is 'd' with "ll", to be
// masked.
struct Conversion {
  bool masked = false;
  char plain[16] = "%";  // as printf knows it
  char kind = '%';
  int num_longs = 0;  // of "l", "ll", "z"
  size_t length = 1;
};

bool parse(std::string_view text, Conversion& out) {
  constexpr std::string_view kPublic = "{public}";
  constexpr std::string_view kPrivate = "{private}";
  out.masked = text.substr(1, kPrivate.size()) == kPrivate;
  if (out.masked) out.length += kPrivate.size();
  if (text.substr(1, kPublic.size()) == kPublic) out.length += kPublic.size();
  for (size_t len = 1; out.length < text.size() && len + 1 < sizeof out.plain; ++len) {
    const char c = text[out.length++];
    out.plain[len] = c;
    if (c == 'l') ++out.num_longs;
    if (c == 'z') out.num_longs = 2;
    if (std::string_view("diuxXcsp%").find(c) == std::string_view::npos) continue;
    out.kind = c;
    return true;
  }
  return false;
}

// Takes the next argument, shown or not, and writes what the conversion comes to.
void write(std::FILE* out, const Conversion& c, va_list& arguments) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  const auto show = [&](auto value) {
    static_cast<void>(c.masked ? std::fputs("<private>", out) : std::fprintf(out, c.plain, value));
  };
#pragma GCC diagnostic pop
  if (c.kind == '%') {
    static_cast<void>(std::fputc('%', out));
  } else if (c.kind == 's' || c.kind == 'p') {
    show(va_arg(arguments, const char*));
  } else if (c.num_longs > 0) {
    show(va_arg(arguments, long long));  // as wide as long and size_t here
  } else {
    show(va_arg(arguments, int));
  }
}

}  // namespace

extern "C" int OH_LOG_Print(LogType type, LogLevel level, unsigned int domain, const char* tag,
                            const char* fmt, ...) {
  if (tag == nullptr) return -1;  // as the phone's log does
  char* line = nullptr;
  size_t len = 0;
  std::FILE* out = open_memstream(&line, &len);
  if (out == nullptr) return -1;
  bool good = true;
  va_list arguments;
  va_start(arguments, fmt);
  for (std::string_view rest = fmt; good && !rest.empty();) {
    Conversion next;
    const size_t text_len = std::min(rest.find('%'), rest.size());
    static_cast<void>(std::fwrite(rest.data(), 1, text_len, out));
    rest.remove_prefix(text_len);
    if (rest.empty()) break;
    good = parse(rest, next);
    if (good) write(out, next, arguments);
    rest.remove_prefix(next.length);
  }
  va_end(arguments);
  good = std::fclose(out) == 0 && good;
  if (good) g_sink.load()(type, level, domain, tag, line);
  std::free(line);
  return good ? static_cast<int>(len) : -1;
}

extern "C" void tq_host_set_log_sink(tq_host_log_sink sink) {
  g_sink.store(sink == nullptr ? &write_to_stderr : sink);
}
