#pragma once

struct AgentSettings;

/// The broker thread's work: asks the advisor, connects, serves the connection until it ends, waits, and begins
/// again, while keep_connection is set.
void qbroker_connect(AgentSettings* settings);
