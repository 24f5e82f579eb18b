#include "broker/proxy_stream.h"

#include "broker/net_helper.h"
#include "broker/ssl_routine.h"
#include "core/log.h"

#include <sys/socket.h>

namespace {

constexpr char log_source[] = "proxy";

}  // namespace

int connect_with_keepalives(const addrinfo* address) {
  const int fd = socket_connect(address);
  if (fd != -1 && set_keepalive(fd) != 0) log_error("Can not set keepalive options for the socket.\n");
  return fd;
}

int proxy_write(net_connection* connection, const void* buffer, size_t size) {
  if (connection->ssl != nullptr) return conn_write(connection, buffer, size);
  return static_cast<int>(send(connection->socket, buffer, size, MSG_NOSIGNAL));
}
