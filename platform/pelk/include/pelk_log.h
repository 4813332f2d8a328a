// pelk_log.h - the log: lines of text to one sink for the whole process.
//
// Any thread may log and any thread may change the sink. Logging leaves errno as it was.
#ifndef PELK_LOG_H
#define PELK_LOG_H

enum pelk_log_level {
  PELK_LOG_CRIT = 1,
  PELK_LOG_ERR = 2,
  PELK_LOG_WARNING = 3,
  PELK_LOG_INFO = 4,
  PELK_LOG_DEBUG = 5
};

// A sink receives one line without its newline; any thread may call it, several at a time. The text is valid during the
// call only.
using pelk_log_sink = void(int level, const char *line, void *udata);

// pelk_set_log_sink sends every line to `sink` from now on, in children that are forked later too. Each new pair of
// sink and data takes a few bytes for good; without memory the default is restored. Null restores the default:
// PELK_LOG_WARNING and above go to standard error, the rest is dropped before it is formatted.
void pelk_set_log_sink(pelk_log_sink *sink, void *udata);

[[gnu::format(printf, 2, 3)]] void pelk_syslog(int level, const char *format, ...);

// What the macros PELK_ERROR, PELK_WARN and PELK_INFO call. `error_number` is an errno, `code` the result that the
// logging function returns.
[[gnu::format(printf, 6, 7)]] void pelk_log_error(const char *file, const char *function, int line, int error_number,
                                                  int code, const char *format, ...);
[[gnu::format(printf, 5, 6)]] void pelk_log_note(int level, const char *file, const char *function, int line,
                                                 const char *format, ...);

// Macros, since the line is the caller's. `file` is the source's name without its ending.
#define PELK_ERROR(file, function, error_number, code, ...) \
  pelk_log_error(file, function, __LINE__, error_number, code, __VA_ARGS__)
#define PELK_WARN(file, function, ...) pelk_log_note(PELK_LOG_WARNING, file, function, __LINE__, __VA_ARGS__)
#define PELK_INFO(file, function, ...) pelk_log_note(PELK_LOG_INFO, file, function, __LINE__, __VA_ARGS__)

// PELK_ASSERT reports a false expression and continues. It is never compiled out.
#define PELK_ASSERT(expression, file)                                                                          \
  do {                                                                                                         \
    if (!(expression)) [[unlikely]]                                                                            \
      pelk_syslog(PELK_LOG_CRIT, "[assertion at %s:%s():%d] for '%s'", file, __func__, __LINE__, #expression); \
  } while (0)

#endif  // PELK_LOG_H
