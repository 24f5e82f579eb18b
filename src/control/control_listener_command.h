#pragma once

#include "core/agent_settings.h"

// What each control request does. Each returns the result code that the client gets: http_would_block (-10) when
// requests are paused, so that a discovery push would wait.

/// The cloud says that the device was claimed: the session is started if need be, and claimed is recorded as 1
/// whatever `claimed` says.
int command_on_claim(AgentSettings* settings, int claimed, const char* service_id);

/// The device was released (claimed 0: discovery or end of the session) or not (claimed 1: the session goes on).
int command_on_release(AgentSettings* settings, int claimed, const char* service_id);

/// The registration state changed: the session is started if need be.
int command_on_fernhollow(AgentSettings* settings, int registered, const char* service_id);

int command_send_discovery(AgentSettings* settings, const DiscoveryParams* params);

/// Lets requests go again and starts the session if the device's state asks for it. `carrier_id` may be null.
int command_resume_connections(AgentSettings* settings, const char* carrier_id);

/// Ends the session and holds back all requests.
int command_pause_connections();
