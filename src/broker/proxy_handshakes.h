#pragma once

#include "broker/net_connection.h"

#include <netdb.h>

// Asking a proxy for a tunnel to the broker, on a connection that already leads to the proxy. Each handshake blocks
// until the proxy has answered, has closed, or a signal interrupts it (a stop of the session sends one). All log
// their own failures. Broker thread.

/// HTTP CONNECT (RFC 7231, section 4.3.6). When the proxy demands Basic authentication (RFC 7617), connects once
/// more to `proxy_address`, with TLS if the connection has TLS, and tries again with the user name and password of
/// the settings. 0 when the tunnel is open, -1 otherwise; either way the connection may have another socket by then.
[[nodiscard]] int http_proxy_connect(net_connection* connection, const char* host, int port,
                                     const addrinfo* proxy_address);

/// HTTP CONNECT with these credentials at once. 0 when the tunnel is open, -1 otherwise.
[[nodiscard]] int http_proxy_connect_with_credentials(net_connection* connection, const char* host, int port,
                                                      const char* user_name, const char* password);

/// The proxy's answer to a request: a new zero-terminated text for the caller to free, or null when reading fails, the
/// proxy closes before the answer is complete, or the answer is longer than 1 MiB. An answer is complete with its
/// header, or with as many bytes behind that as a Content-Length announces.
[[nodiscard]] char* read_http_answer(net_connection* connection);

/// SOCKS4 CONNECT to the first IPv4 address of `host`, which is resolved here. 0 when the tunnel is open, or -1.
[[nodiscard]] int socks4_connect(net_connection* connection, const char* host, int port);

/// SOCKS5 CONNECT (RFC 1928) to the first IPv4 address of `host`, which is resolved here. Offers to go without
/// authentication or with the user name and password of the settings (RFC 1929). 0 when the tunnel is open, or -1.
[[nodiscard]] int socks5_connect(net_connection* connection, const char* host, int port);
