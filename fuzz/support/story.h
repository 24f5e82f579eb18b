#pragma once

#include <string>

// What happened in one run, told in one text: the agent's log lines (log_write() is replaced: "E:" before an ERROR line,
// and so on) and what the fakes of a target were asked to do, in order. A target writes the story that its own, naive
// reading of the input gives, and compares the two.

/// Back to the state at the start of a process: an empty story, no settings, default options with every log level on,
/// errno 0. The first thing in every run.
void begin_run();

/// Adds to the story.
void tell(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// The story so far; the next one begins.
std::string take_story();

/// printf into a string.
std::string formatted(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// `bytes` with everything unprintable written as an escape.
std::string escaped(const std::string& bytes);

/// `text`, or "(null)".
const char* or_null(const char* text);

/// Ends the run as a crash, with both texts, when they differ.
void check_same(const std::string& got, const std::string& expected);

/// Ends the run as a crash when something doesn't hold.
#define CHECK(holds) \
  do { \
    if (!(holds)) check_failed(__FILE__, __LINE__, #holds); \
  } while (0)
[[noreturn]] void check_failed(const char* file, int line, const char* what);
