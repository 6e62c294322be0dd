/* The phone's log interface on Linux: the same call, formatted to standard error. */
#ifndef TQREADER_HOST_HILOG_LOG_H
#define TQREADER_HOST_HILOG_LOG_H

#ifdef __cplusplus
extern "C" {
#endif

typedef enum { LOG_APP = 0 } LogType;
typedef enum { LOG_DEBUG = 3, LOG_INFO = 4, LOG_WARN = 5, LOG_ERROR = 6, LOG_FATAL = 7 } LogLevel;

/* Formats `fmt` and hands the line to the sink. Conversions are printf's of integers, texts and pointers with
   an optional "{public}" or "{private}" mark behind the percent sign; what is private becomes "<private>", as
   in the phone's release images. Returns the number of bytes of the line; -1, and no line, without a tag or
   for another conversion. */
int OH_LOG_Print(LogType type, LogLevel level, unsigned int domain, const char* tag, const char* fmt, ...);

/* Receives each finished line, without a line feed. Called on the thread that logs. */
typedef void (*tq_host_log_sink)(LogType type, LogLevel level, unsigned int domain, const char* tag,
                                 const char* line);

/* Replaces the sink; null puts back the one that writes to standard error. */
void tq_host_set_log_sink(tq_host_log_sink sink);

#ifdef __cplusplus
}
#endif

#endif
