#pragma once

#include "broker/net_connection.h"

#include <memory>

/// Frees a connection record that conn_close() has closed.
struct net_connection_deleter {
  void operator()(net_connection* connection) const;
};
using net_connection_ptr = std::unique_ptr<net_connection, net_connection_deleter>;

/// Opens the byte stream to the broker: directly (with TLS when `use_ssl`), or through the proxy that the settings
/// name. Exactly one address is tried, the first IPv4 one if there is any. Null on any failure (logged; everything
/// made is released first). The caller closes with conn_close(). Broker thread.
[[nodiscard]] net_connection_ptr open_broker_connection(const char* host, int port, bool use_ssl);
