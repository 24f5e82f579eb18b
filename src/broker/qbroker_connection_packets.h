#pragma once

#include "broker/net_connection.h"

#include <cstddef>
#include <cstdint>

/// Tells the broker who the agent is: by the advisor's token, or (null) by the stored agent id. The result of
/// conn_write(). A missing agent id ends the process with status 1.
int send_identity(net_connection* connection, const unsigned char* token, size_t token_length);

/// Asks the broker for TCP keepalives on its side: idle time, probes, interval. The result of conn_write().
int send_broker_keepalives(net_connection* connection, uint32_t time, uint32_t probes, uint32_t interval);
