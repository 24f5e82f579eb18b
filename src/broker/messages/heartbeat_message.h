#pragma once

#include "broker/net_connection.h"

#include <cstdint>

// Heartbeats: the agent sends numbered ones, the broker echoes the number. The counters live as long as the
// process. Sending and receiving is the broker thread's.

/// Sends the next heartbeat. The result of conn_write(), or -1 for a null connection; the number is used up in
/// either case.
int send_heartbeat(net_connection* connection);

/// Takes the chunk of a heartbeat response. A chunk of another length than 16 is warned about and ignored.
void heartbeat_response_received(const unsigned char* chunk, uint16_t length);

/// Was the newest heartbeat answered? 0, or -1 (logged) after posting the close command to the broker thread.
/// Any thread.
int check_heartbeat();
