#pragma once

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

/// What became of a child process.
struct child_outcome {
  int status;          ///< its exit status, or -1 when a signal ended it
  std::string output;  ///< what it and its own children wrote to standard output and error
};

/// Starts `body` in a child process whose exit status is what `body` returns.
template <typename Body> pid_t start_child(Body body) {
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child < 0) std::abort();
  if (child == 0) {
    const int code = body();
    std::fflush(nullptr);
    _exit(code);
  }
  return child;
}

/// Waits for the child's end: its exit status, or -1 when a signal ended it.
inline int wait_for_child(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) != child) {
    if (errno != EINTR) std::abort();
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/// Runs `body` in a child process to its end.
template <typename Body> child_outcome run_in_child(Body body) {
  int ends[2];
  if (pipe(ends) != 0) std::abort();
  const pid_t child = start_child([&] {
    dup2(ends[1], STDOUT_FILENO);
    dup2(ends[1], STDERR_FILENO);
    close(ends[0]);
    close(ends[1]);
    return body();
  });
  close(ends[1]);
  std::string output;
  char block[4096];
  for (ssize_t size = 0; (size = read(ends[0], block, sizeof block)) > 0;) {
    output.append(block, static_cast<size_t>(size));
  }
  close(ends[0]);
  return {wait_for_child(child), output};
}

/// The id of a process that has ended and was reaped.
inline pid_t dead_process() {
  const pid_t child = start_child([] { return 0; });
  wait_for_child(child);
  return child;
}
