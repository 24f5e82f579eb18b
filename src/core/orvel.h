#pragma once

#include "core/agent_settings.h"

/// The program: command line, daemon, watchdog or agent. Its result is main()'s.
int run_program(int argc, char** argv);

/// The agent's body, in the process itself or in the watchdog's child: settings, signals, pid file, then
/// orvel_main on a thread of its own while the calling thread serves signals. Returns when the mandatory settings
/// are missing; ends the process otherwise.
void run_agent(AgentSettings* settings);

/// The start-up sequence and the wait for the end. Body of the main thread; ends the process.
void orvel_main(AgentSettings* settings);

/// Appends `piece` to the malloc'ed `*dst` (null counts as empty). When nothing is to be stored or memory is
/// short, `*dst` stays as it is.
void str_append(char** dst, const char* piece);

/// The target of a symbolic link as a new string for the caller to free, or null.
[[nodiscard]] char* resolve_link(const char* path);

/// Lets every signal through to the calling thread. 0, or an error number.
[[nodiscard]] int clear_thread_signal_mask();
