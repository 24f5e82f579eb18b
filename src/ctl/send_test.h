#pragma once

#include "ctl/command_line.h"

#include <string>

/// The subcommand: delivers a message by the agent's own code and shows what the agent would log. exit_done when it got
/// to every endpoint that the agent would serve; exit_wrong, exit_file or exit_timeout otherwise (complained).
[[nodiscard]] int run_send_test(const ctl_command_line& line);

/// What a line of the delivery's log means: shown at level INFO and above, and whether it tells of a failure.
struct delivery_line {
  bool debug;
  bool failure;
};
[[nodiscard]] delivery_line judge_delivery_line(const std::string& line);
