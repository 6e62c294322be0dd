/* For the check build only: the glibc calls that Debian's libc++ makes and musl does not have. */

#include <stdarg.h>
#include <stdio.h>

int __vfprintf_chk(FILE* stream, int flag, const char* fmt, va_list args) {
  (void)flag;
  return vfprintf(stream, fmt, args);
}

int __fprintf_chk(FILE* stream, int flag, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  const int len = __vfprintf_chk(stream, flag, fmt, args);
  va_end(args);
  return len;
}
