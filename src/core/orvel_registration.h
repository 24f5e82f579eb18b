#pragma once

#include "core/agent_settings.h"

#include <cstdint>

/// Registers the device with the cloud, again and again until its stored identity is complete. A complete stored
/// identity needs no request. The short retry delay applies until the delays add up to `aggressive_period` seconds.
/// Never returns after a rejected serial number.
void register_until_complete(AgentSettings* settings, uint32_t aggressive_period);
