#pragma once

#include "core/agent_settings.h"

// The broker session: one thread that asks the advisor, connects, identifies itself, reads until the connection
// ends, and begins again. start and stop may be called by any thread but the broker thread itself.

/// Starts the broker thread. 0, or -1 (logged) when it already runs or can't be made.
int start_broker_thread(AgentSettings* settings);

/// Ends the broker thread, whatever it waits for, and joins it. Always 0.
int stop_broker_thread();

/// stop_broker_thread() unless the settings force the connection ("q_force_connection" is 1); then -1.
int stop_broker_thread_unless_forced();
