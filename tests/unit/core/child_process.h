#pragma once

#include "core/log.h"
#include "core/options.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

// What the tests of process services share: they fork, so that limits, signal actions and exits stay in the child.

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool under_sanitizer = true;
#elif defined(__has_feature)
constexpr bool under_sanitizer = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
constexpr bool under_sanitizer = false;
#endif

/// Polls until `condition` holds; false when it still doesn't after a generous time.
inline bool eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds{60};
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds{2});
  }
  return true;
}

/// A folder of its own for one test, open to every user.
class temporary_folder {
public:
  temporary_folder() {
    char name[] = "/tmp/orvel-core-XXXXXX";
    if (mkdtemp(name) == nullptr) std::abort();
    path_ = name;
    std::filesystem::permissions(path_, std::filesystem::perms::all);
  }
  ~temporary_folder() { std::filesystem::remove_all(path_); }
  temporary_folder(const temporary_folder&) = delete;
  temporary_folder& operator=(const temporary_folder&) = delete;

  [[nodiscard]] std::string file(const std::string& name) const { return path_ + "/" + name; }
  [[nodiscard]] const std::string& path() const { return path_; }

private:
  std::string path_;
};

inline std::string content_of(const std::string& path) {
  std::ifstream file{path};
  return {std::istreambuf_iterator<char>{file}, {}};
}

inline void write_file(const std::string& path, const std::string& content) {
  std::ofstream{path} << content;
}

/// The lines of a text, without their ends.
inline std::vector<std::string> lines_of(const std::string& text) {
  std::istringstream stream{text};
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

/// The lines of a console log ("source: line:   TAG: text") as "TAG: text".
inline std::vector<std::string> messages(const std::string& console) {
  std::vector<std::string> found = lines_of(console);
  for (std::string& line : found) {
    const size_t before_line_number = line.find(": ");
    const size_t before_tag = line.find(": ", before_line_number + 2);
    line.erase(0, line.find_first_not_of(": ", before_tag));
  }
  return found;
}

struct child_result {
  int status;           ///< exit status, or -1 when a signal ended the child
  std::string console;  ///< what it and its own children wrote to standard error
};

/// Runs `body` in a forked process that logs everything to its console; it exits with what `body` returns.
inline child_result run_in_child(const std::function<int()>& body) {
  int ends[2];
  if (pipe(ends) != 0) std::abort();
  const pid_t child = fork();
  if (child == -1) std::abort();
  if (child == 0) {
    dup2(ends[1], STDERR_FILENO);
    close(ends[0]);
    close(ends[1]);
    options.log_level = level_debug;
    options.console_log = true;
    options.file_log = false;
    _exit(body());
  }
  close(ends[1]);
  child_result result{-1, {}};
  char piece[4096];
  for (ssize_t size = 0; (size = read(ends[0], piece, sizeof piece)) > 0;) {
    result.console.append(piece, static_cast<size_t>(size));
  }
  close(ends[0]);
  int status = 0;
  waitpid(child, &status, 0);
  if (WIFEXITED(status)) result.status = WEXITSTATUS(status);
  return result;
}

/// The id of a process that has ended and was reaped.
inline pid_t dead_process() {
  const pid_t child = fork();
  if (child == 0) _exit(0);
  waitpid(child, nullptr, 0);
  return child;
}

inline void set_limit(__rlimit_resource resource, rlim_t soft) {
  rlimit limit{};
  getrlimit(resource, &limit);
  limit.rlim_cur = soft;
  setrlimit(resource, &limit);
}

/// Becomes a user without privileges, unless the process runs as one already.
inline void drop_privileges() {
  constexpr uid_t nobody = 65534;
  if (geteuid() == 0 && setresuid(nobody, nobody, nobody) != 0) std::abort();
}
