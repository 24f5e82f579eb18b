#include "core/log.h"

#include "core/log_rotation.h"
#include "core/owned.h"
#include "core/sync.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// The log, innermost of all locks.
struct log_state {
  sync_mutex writer{lock_rank::log_writer};  ///< held for the whole of one message
  /// Pauses that a full disk may still cost. Shared by all lines until one gets through again, so that a disk
  /// that stays full delays the program once and not at every line.
  int space_waits GUARDED_BY(writer) = space_wait_limit;
  /// The time stamp of the line before, which most lines of a burst share.
  time_t stamp_time GUARDED_BY(writer) = no_time;
  char stamp[256] GUARDED_BY(writer) = {};
  /// This process; 0: not asked for yet. Not guarded: a forked child forgets it.
  std::atomic<pid_t> process{0};

  static constexpr int space_wait_limit = 100;
  static constexpr time_t no_time = -1;
};
constinit log_state state{};
static_assert(std::atomic<pid_t>::is_always_lock_free);

constexpr timespec space_wait{0, 50'000'000};

// Tags by effective level. The last two are those of the connectivity log.
constexpr const char* tags[] = {"", "  DEBUG", "   INFO", "WARNING", "  ERROR", "", "", "E", "S"};
constexpr int effective_other_event = 7;
constexpr int effective_connection_event = 8;

// Formatted text: in `fixed` when it fits, as nearly every line does, otherwise malloc'ed.
struct formatted {
  char fixed[1024];
  c_string longer;
  const char* text;
  size_t length;
};

__attribute__((format(printf, 2, 0))) bool format_arguments(formatted* out, const char* format,
                                                            va_list arguments) {
  va_list second_pass;
  va_copy(second_pass, arguments);
  const int length = vsnprintf(out->fixed, sizeof out->fixed, format, arguments);
  out->length = static_cast<size_t>(length);
  out->text = out->fixed;
  if (length >= 0 && out->length >= sizeof out->fixed) {
    out->longer.reset(static_cast<char*>(std::malloc(out->length + 1)));
    out->text = out->longer.get();
    if (out->longer) vsnprintf(out->longer.get(), out->length + 1, format, second_pass);
  }
  va_end(second_pass);
  return length >= 0 && out->text != nullptr;
}

__attribute__((format(printf, 2, 3))) bool format_text(formatted* out, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const bool done = format_arguments(out, format, arguments);
  va_end(arguments);
  return done;
}

// Where a message comes from, what it says, and where it goes.
struct message {
  pid_t process;
  int level;
  const char* source;
  int line;
  formatted content;
  int effective_level;
  char file[4096];
};

// Messages of level ERROR carry the WARNING tag, which is intended.
int clamped_level(int level) {
  return level > level_warning ? level_warning : level;
}

bool begins_with(const char* text, const char* beginning) {
  return std::strncmp(text, beginning, std::strlen(beginning)) == 0;
}

void write_to_console(const message& m) {
  const char* tag = m.level == level_status ? tags[level_error] : tags[clamped_level(m.level)];
  std::fprintf(stderr, "%s: %d: %s: %s", m.source, m.line, tag, m.content.text);
}

// Chooses the file and the effective level. False when no file is named.
bool choose_target(message* m) {
  const char* file = options.log_file;
  m->effective_level = clamped_level(m->level);
  if (m->level == level_status && options.connectivity_log_file == nullptr) {
    m->effective_level = level_status;
  } else if (m->level == level_status) {
    file = options.connectivity_log_file;
    const char* text = m->content.text;
    const bool connection = begins_with(text, "connected") || begins_with(text, "disconnected");
    m->effective_level = connection ? effective_connection_event : effective_other_event;
  }
  if (file == nullptr || *file == '\0') return false;
  const size_t length = strnlen(file, sizeof m->file - 1);
  std::memcpy(m->file, file, length);
  m->file[length] = '\0';
  return true;
}

// Brings the time stamp up to date.
bool update_stamp() REQUIRES(state.writer) {
  const time_t now = std::time(nullptr);
  if (now == log_state::no_time) return false;
  if (now == state.stamp_time) return true;
  state.stamp_time = log_state::no_time;
  tm local{};
  if (localtime_r(&now, &local) == nullptr) return false;
  if (std::strftime(state.stamp, sizeof state.stamp, "%Y-%m-%d %H:%M:%S", &local) == 0) return false;
  state.stamp_time = now;
  return true;
}

bool format_line(const message& m, formatted* line) REQUIRES(state.writer) {
  if (!update_stamp()) return false;
  const char* tag = tags[m.effective_level];
  const bool done = m.effective_level >= effective_other_event
                        ? format_text(line, "%s %s: %s", state.stamp, tag, m.content.text)
                        : format_text(line, "%s (%d):%s:%d\t%s: %s", state.stamp, m.process, m.source, m.line,
                                      tag, m.content.text);
  if (!done) errno = ENOMEM;
  return done;
}

// Opens the file that takes the line, after a rotation if the line would take it past the size limit.
// Another process may rotate the same file meanwhile. Its compression waits for the shared locks on a generation
// before it reads it, and deletes it before it gives its own lock back; so a file that is locked here and still
// has a name is a file whose lines are kept. A lock held by a stranger stops nobody: the line is written anyway.
fd_owner open_for_line(const char* name, size_t line_length) {
  constexpr int most_attempts = 20;
  bool rotated = false;
  for (int attempt = 1;; ++attempt) {
    fd_owner file{open(name, O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0666)};
    if (!file.valid()) return file;
    const bool locked = flock(file.get(), LOCK_SH | LOCK_NB) == 0 || errno != EWOULDBLOCK;
    struct stat status {};
    if (fstat(file.get(), &status) != 0) return {};
    if ((!locked || status.st_nlink == 0) && attempt < most_attempts) continue;
    if (rotated || !needs_rotation(status.st_size, line_length)) return file;
    file.reset();
    rotate_log(name, line_length);
    rotated = true;
  }
}

// Writes the line whole. A full disk costs the oldest generations, and, when there are none left, waiting.
bool write_line(int file, const char* name, const formatted& line) REQUIRES(state.writer) {
  size_t written = 0;
  while (written < line.length) {
    const ssize_t count = write(file, line.text + written, line.length - written);
    if (count > 0) {
      written += static_cast<size_t>(count);
      continue;
    }
    if (count < 0 && errno == EINTR) continue;  // the broker thread lets the stop signal in
    if (count == 0 || errno != ENOSPC) return false;
    if (delete_oldest_generation(name) == 0) {
      if (state.space_waits == 0) {
        errno = ENOSPC;
        return false;
      }
      --state.space_waits;
    }
    nanosleep(&space_wait, nullptr);
  }
  state.space_waits = log_state::space_wait_limit;
  return true;
}

bool write_to_file(const message& m) REQUIRES(state.writer) {
  formatted line;
  if (!format_line(m, &line)) return false;
  fd_owner file = open_for_line(m.file, line.length);
  if (!file.valid() || !write_line(file.get(), m.file, line)) return false;
  return close(file.release()) == 0;
}

pid_t own_process() {
  pid_t process = state.process.load(std::memory_order_relaxed);
  if (process != 0) return process;
  process = getpid();
  state.process.store(process, std::memory_order_relaxed);
  return process;
}

// The log can't report its own trouble through itself.
void report_failure() {
  constexpr char text[] = "Log rotation function failed\n";
  std::perror("log_rotation_fwrite()");
  if (write(STDERR_FILENO, text, sizeof text - 1) < 0) return;
}

__attribute__((format(printf, 5, 0))) void write_arguments(pid_t process, int level, const char* source,
                                                           int line, const char* format, va_list arguments) {
  if (!log_passes(level)) return;
  const int saved_errno = errno;
  {
    const scoped_lock lock{state.writer};
    message m;
    m.process = process;
    m.level = level;
    m.source = source;
    m.line = line;
    const bool has_content = format_arguments(&m.content, format, arguments);
    if (has_content && options.console_log) write_to_console(m);
    if (has_content && options.file_log && choose_target(&m) && !write_to_file(m)) report_failure();
  }
  errno = saved_errno;
}

}  // namespace

void log_write(int level, const char* source, int line, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  write_arguments(own_process(), level, source, line, format, arguments);
  va_end(arguments);
}

void log_write_as(pid_t process, int level, const char* source, int line, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  write_arguments(process, level, source, line, format, arguments);
  va_end(arguments);
}

void log_after_fork() {
  state.process.store(0, std::memory_order_relaxed);
  rotation_after_fork();
}
