#pragma once

#include "broker/net_connection.h"

#include <cstddef>

// Reading and writing during a proxy handshake: through the TLS session if the connection has one, otherwise on the
// socket itself, so that a handshake's own text is all that is logged of a plain connection's failure. One attempt
// each; the socket is a blocking one.

/// Bytes read, 0 when the peer closed, negative on error (errno tells which).
[[nodiscard]] int proxy_read(net_connection* connection, void* buffer, size_t size);

/// Bytes written, or a negative value on error (errno tells which).
[[nodiscard]] int proxy_write(net_connection* connection, const void* buffer, size_t size);
