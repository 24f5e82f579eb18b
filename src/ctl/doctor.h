#pragma once

#include "ctl/command_line.h"

/// The subcommand: looks for what is wrong with the device's settings and surroundings, and prints what it has looked at
/// and what to do. exit_done when nothing is wrong, otherwise exit_wrong.
[[nodiscard]] int run_doctor(const ctl_command_line& line);
