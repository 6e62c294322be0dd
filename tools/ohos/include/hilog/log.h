/* The phone's log interface as far as the library uses it, for the check build: the compiler verifies the
   conversions and their privacy marks, as the phone's header makes it. */
#ifndef TQREADER_CHECK_HILOG_LOG_H
#define TQREADER_CHECK_HILOG_LOG_H

#ifdef __cplusplus
extern "C" {
#endif

typedef enum { LOG_APP = 0 } LogType;
typedef enum { LOG_DEBUG = 3, LOG_INFO = 4, LOG_WARN = 5, LOG_ERROR = 6, LOG_FATAL = 7 } LogLevel;

int OH_LOG_Print(LogType type, LogLevel level, unsigned int domain, const char* tag, const char* fmt, ...)
    __attribute__((__format__(os_log, 5, 6)));

#ifdef __cplusplus
}
#endif

#endif
