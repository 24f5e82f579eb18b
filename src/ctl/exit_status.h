#pragma once

#include <string>

// How orvelctl ends. The whole table, with the codes of discovery between, is in docs/orvelctl.md.

constexpr int exit_done = 0;
constexpr int exit_wrong = 1;        ///< refused by the agent, not delivered, or something for doctor to name
constexpr int exit_not_running = 3;  ///< what init scripts call a program that isn't running
constexpr int exit_other_code = 11;  ///< the agent's answer carries a positive code, or one that nobody knows
// The same numbers as in sysexits.h.
constexpr int exit_usage = 64;
constexpr int exit_unreachable = 69;
constexpr int exit_file = 74;
constexpr int exit_timeout = 75;

/// Prints "orvelctl: TEXT", printable(), and a line end to standard error. Returns `status`.
int complain(int status, const std::string& text);

/// `status` when everything printed to standard output got out; otherwise complains and returns exit_file.
int finish_output(int status);
