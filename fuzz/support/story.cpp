#include "story.h"

#include "core/log.h"
#include "fake_settings.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace {

std::string& story() {
  static std::string text;
  return text;
}

__attribute__((format(printf, 2, 0))) void append(std::string* text, const char* format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  char buffer[512];
  const auto length = static_cast<size_t>(std::vsnprintf(buffer, sizeof buffer, format, arguments));
  if (length < sizeof buffer) {
    text->append(buffer, length);
  } else {
    const size_t before = text->size();
    text->resize(before + length + 1);
    std::vsnprintf(text->data() + before, length + 1, format, again);
    text->pop_back();
  }
  va_end(again);
}

__attribute__((format(printf, 2, 0))) void append_log_line(int level, const char* format, va_list arguments) {
  constexpr const char* tags[] = {"", "D:", "I:", "W:", "E:", "", "S:"};
  const int saved_errno = errno;
  story() += tags[level];
  append(&story(), format, arguments);
  errno = saved_errno;
}

}  // namespace

void begin_run() {
  story().clear();
  fake_settings().clear();
  options = {};
  options.log_level = level_debug;
  errno = 0;
}

void tell(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  append(&story(), format, arguments);
  va_end(arguments);
}

std::string take_story() {
  return std::exchange(story(), {});
}

std::string formatted(const char* format, ...) {
  std::string text;
  va_list arguments;
  va_start(arguments, format);
  append(&text, format, arguments);
  va_end(arguments);
  return text;
}

std::string escaped(const std::string& bytes) {
  std::string shown;
  for (const char c : bytes) {
    const bool plain = c == '\n' || (c >= ' ' && c < 0x7f && c != '\\');
    if (plain) {
      shown += c;
    } else {
      shown += formatted("\\x%02x", static_cast<unsigned char>(c));
    }
  }
  return shown;
}

const char* or_null(const char* text) {
  return text != nullptr ? text : "(null)";
}

void check_same(const std::string& got, const std::string& expected) {
  if (got == expected) return;
  const std::string shown =
      "\n--- got:\n" + escaped(got) + "\n--- expected:\n" + escaped(expected) + "\n---\n";
  std::fputs(shown.c_str(), stderr);
  std::abort();
}

void check_failed(const char* file, int line, const char* what) {
  std::fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, what);
  std::abort();
}

// In the place of the agent's log.

void log_write(int level, const char* /*source*/, int /*line*/, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  append_log_line(level, format, arguments);
  va_end(arguments);
}

void log_write_as(pid_t /*process*/, int level, const char* /*source*/, int /*line*/, const char* format,
                  ...) {
  va_list arguments;
  va_start(arguments, format);
  append_log_line(level, format, arguments);
  va_end(arguments);
}

void log_after_fork() {}
