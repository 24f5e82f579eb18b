#include "broker/proxy_stream.h"

#include "broker/ssl_routine.h"

#include <sys/socket.h>

int proxy_read(net_connection* connection, void* buffer, size_t size) {
  if (connection->ssl != nullptr) return conn_read(connection, buffer, size);
  return static_cast<int>(recv(connection->socket, buffer, size, 0));
}

int proxy_write(net_connection* connection, const void* buffer, size_t size) {
  if (connection->ssl != nullptr) return conn_write(connection, buffer, size);
  return static_cast<int>(send(connection->socket, buffer, size, MSG_NOSIGNAL));
}
