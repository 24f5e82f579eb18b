#pragma once

#include "core/agent_settings.h"

/// Reads the command line into `settings` and the process-wide options, points the settings library at its files,
/// and checks the hardware id. `--version` prints and exits with status 0. Returns 0, or -1 (logged and, where it
/// helps, explained on standard output). The options keep pointers into `argv`; `settings` gets copies.
/// A repeated option: the last one counts.
[[nodiscard]] int parse_args(int argc, char** argv, AgentSettings* settings);

/// Prints the usage text to standard output.
void print_usage(const char* program);
