#pragma once

#include "broker/net_connection.h"

#include <cstddef>
#include <netdb.h>

// The socket of a broker connection, direct or to a proxy, and writing to it during a handshake.

/// A connected socket to `address` with TCP keepalives, which it does without when they fail (logged), or -1
/// (logged, errno kept). The caller owns the descriptor.
[[nodiscard]] int connect_with_keepalives(const addrinfo* address);

/// As conn_write(), but of a plain connection's failure nothing is logged: each handshake has its own text for that.
/// Bytes written, or a negative value on error (errno tells which).
[[nodiscard]] int proxy_write(net_connection* connection, const void* buffer, size_t size);
