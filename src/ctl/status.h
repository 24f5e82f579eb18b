#pragma once

#include "ctl/command_line.h"

#include <string>

/// What is known of the agent from its pid file, the settings and the connectivity log.
struct agent_status {
  bool running;
  int pid;  ///< 0 when it isn't running
  std::string version;
  bool registered;
  bool claimed;
  bool connected;
  std::string since;  ///< local time from which it has been so connected or disconnected; "" when not known
};

[[nodiscard]] std::string status_as_text(const agent_status& status);
[[nodiscard]] std::string status_as_json(const agent_status& status);

/// The subcommand: prints the status. exit_done, exit_not_running, or exit_file (complained).
[[nodiscard]] int run_status(const ctl_command_line& line);
