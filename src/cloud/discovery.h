#pragma once

#include "core/agent_settings.h"

// The discovery period: from a push until the device is claimed or a deadline in system uptime has passed. While it
// is open the broker session runs and a thread watches the claim status. Any thread.

constexpr int discovery_without_request = -9;

/// Makes one discovery request and opens (or prolongs) the period. 0; -9 without `params`; otherwise the code of
/// discover(), and then the period stays as it was.
int push_discovery(const DiscoveryParams* params, AgentSettings* settings);

/// 1 while a discovery period is open.
[[nodiscard]] int discovery_active();

/// Seconds since the system started; 0 when that can't be read.
[[nodiscard]] long system_uptime();

/// What the first user signal asks for: wakes every interruptible sleeper. Other signals are ignored.
void first_user_signal_action(int signal_number);
