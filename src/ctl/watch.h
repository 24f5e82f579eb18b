#pragma once

#include "ctl/command_line.h"

/// The subcommand: prints each state document that the agent sends, until SIGINT, SIGTERM, SIGHUP, SIGQUIT or
/// SIGTSTP, or until standard output is closed. For that time a socket of its own is one of event_sink's endpoints. exit_done, or exit_file
/// or exit_timeout (complained).
[[nodiscard]] int run_watch(const ctl_command_line& line);
