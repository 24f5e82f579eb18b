#pragma once

#include <sys/types.h>

struct AgentSettings;

/// Locks the watchdog pid file, then runs `run_agent` in a child process, and again in a new child each time one
/// is killed by a signal or SIGHUP asks for a restart. Ends with the child when that exits by itself (status 0),
/// and on SIGTERM, which it passes on. SIGUSR1 and SIGUSR2 are passed on. Call before any thread starts.
[[noreturn]] void run_watchdog(const char* pid_file, void (*run_agent)(AgentSettings*),
                               AgentSettings* settings);

/// In the child: the process id of the watchdog that forked it. 0 when the agent runs without a watchdog.
pid_t watchdog_pid();
