#pragma once

#include "core/options.h"

#include <sys/types.h>

// The log: console (standard error), a size-rotated file whose older generations are gzip-compressed, and an
// optional connectivity log. Line formats are in docs/logging.md.

constexpr int level_debug = 1;
constexpr int level_info = 2;
constexpr int level_warning = 3;
constexpr int level_error = 4;
constexpr int level_silent = 5;  ///< as a threshold only: nothing below level_status is written
constexpr int level_status = 6;  ///< connectivity events; written whatever the threshold is

/// True when a call of this level writes something.
inline bool log_passes(int level) {
  return level == level_status || (level >= 1 && level >= options.log_level);
}

/// Writes one message, printf-style. `source` is the module's name without directory and extension, `line` the
/// caller's line. Keeps errno. Any thread may call it; not for signal handlers and forked children. A message
/// that can't be formatted for lack of memory is dropped; one that can't be written is reported on standard
/// error and lost.
void log_write(int level, const char* source, int line, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

/// As log_write(), with `process` in the place of the caller's process id: the word of a forked child, which must
/// not log by itself.
void log_write_as(pid_t process, int level, const char* source, int line, const char* format, ...)
    __attribute__((format(printf, 5, 6)));

/// Call in a freshly forked process that goes on logging, before it opens or closes any descriptor: it has another
/// process id and no compression thread.
void log_after_fork();

// The calls as modules use them: each source file names its module in `log_source`, and a call whose level is
// filtered costs one comparison and doesn't evaluate its arguments.
#define LOG_AT(level, ...) \
  do { \
    if (log_passes(level)) log_write(level, log_source, __LINE__, __VA_ARGS__); \
  } while (0)
#define log_debug(...) LOG_AT(level_debug, __VA_ARGS__)
#define log_info(...) LOG_AT(level_info, __VA_ARGS__)
#define log_warning(...) LOG_AT(level_warning, __VA_ARGS__)
#define log_error(...) LOG_AT(level_error, __VA_ARGS__)
#define log_status(...) LOG_AT(level_status, __VA_ARGS__)
#define log_error_as(process, ...) \
  do { \
    if (log_passes(level_error)) log_write_as(process, level_error, log_source, __LINE__, __VA_ARGS__); \
  } while (0)
