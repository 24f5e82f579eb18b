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
