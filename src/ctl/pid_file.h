#pragma once

#include <string>
#include <sys/types.h>

// The agent's pid file, seen from outside. The agent holds a record lock on it as long as it lives.

enum class pid_file_state {
  absent,
  running,     ///< locked: the agent runs as `pid`
  stale,       ///< names a process that has ended; the agent's next start replaces it
  other,       ///< not locked, but a process of this number runs: the agent refuses to start
  no_number,   ///< not locked and without a number: the agent refuses to start
  unreadable,  ///< `error` tells why
};

struct pid_file_view {
  pid_file_state state;
  pid_t pid;  ///< 0 when there is none
  int error;  ///< errno
};

[[nodiscard]] pid_file_view look_at_pid_file(const std::string& path);
