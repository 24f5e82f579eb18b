#include "broker/net_helper.h"

#include "broker/qbroker_connection_commands.h"
#include "broker/ssl_routine.h"
#include "core/log.h"
#include "core/owned.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace {

constexpr char log_source[] = "net_helper";

// A host may have any number of addresses, and all of them have to fit.
constexpr size_t first_resolver_buffer = 1024;
constexpr size_t max_resolver_buffer = 1024 * 1024;

c_string resolver_buffer(size_t size) {
  return c_string{static_cast<char*>(must_allocate(size, ALLOCATION("malloc().\n", 1)))};
}

int set_tcp_option(int fd, int option, int value) {
  return setsockopt(fd, IPPROTO_TCP, option, &value, sizeof value);
}

}  // namespace

int socket_connect(const addrinfo* address) {
  fd_owner fd{socket(address->ai_family, address->ai_socktype | SOCK_CLOEXEC, address->ai_protocol)};
  if (!fd.valid()) {
    log_error("Can't open socket: %s.\n", std::strerror(errno));
    return -1;
  }
  if (connect(fd.get(), address->ai_addr, address->ai_addrlen) != 0) {
    const int connect_errno = errno;
    log_warning("Can't connect to server, errno=%d - %s.\n", connect_errno, std::strerror(connect_errno));
    fd.reset();
    errno = connect_errno;
    return -1;
  }
  return fd.release();
}

int resolve_ipv4(const char* host, in_addr* address, int* resolver_error) {
  *resolver_error = 0;
  // An address is its own answer. The resolver would say so, too, but looks at its configuration first.
  if (inet_pton(AF_INET, host, address) == 1) return 0;
  size_t size = first_resolver_buffer;
  c_string buffer = resolver_buffer(size);
  hostent entry{};
  hostent* found = nullptr;
  while (gethostbyname_r(host, &entry, buffer.get(), size, &found, resolver_error) == ERANGE &&
         size < max_resolver_buffer) {
    size *= 2;
    buffer = resolver_buffer(size);
  }
  if (found == nullptr || found->h_addrtype != AF_INET || found->h_addr_list[0] == nullptr) return -1;
  std::memcpy(address, found->h_addr_list[0], sizeof *address);
  return 0;
}

int set_keepalive(int fd) {
  const int on = 1;
  if (setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on) != 0) {
    log_error("setsockopt(): %s.\n", std::strerror(errno));
    return -1;
  }
  return 0;
}

int set_keepalive_values(int fd, int idle, int count, int interval) {
  const int switched_on = set_keepalive(fd);
  if (switched_on != 0) return switched_on;
  if (set_tcp_option(fd, TCP_KEEPIDLE, idle) != 0) {
    log_error("Cannot set TCP_KEEPIDLE - setsockopt(): %s.\n", std::strerror(errno));
    return -1;
  }
  if (set_tcp_option(fd, TCP_KEEPCNT, count) != 0) {
    log_error("Cannot set TCP_KEEPCNT - setsockopt(): %s.\n", std::strerror(errno));
    return -1;
  }
  if (set_tcp_option(fd, TCP_KEEPINTVL, interval) != 0) {
    log_error("Cannot set TCP_KEEPINTVL - setsockopt(): %s.\n", std::strerror(errno));
    return -1;
  }
  return 0;
}

ssize_t recv_all(net_connection* connection, void* buffer, size_t n) {
  auto* bytes = static_cast<unsigned char*>(buffer);
  size_t received = 0;
  while (received < n) {
    const int result = conn_read(connection, bytes + received, n - received);
    if (result > 0) {
      received += static_cast<size_t>(result);
      continue;
    }
    if (result == 0) {
      log_debug("Connection was closed.\n");
      return 0;
    }
    if (errno != EINTR) {
      log_error("Cannot read data from socket. errno = %d - %s.\n", errno, std::strerror(errno));
      return -1;
    }
    log_debug("recv was interrupted by signal.\n");
    if (keep_connection == 0) return -1;
  }
  return static_cast<ssize_t>(n);
}

ssize_t send_all(int fd, const void* buffer, size_t n) {
  const auto* bytes = static_cast<const unsigned char*>(buffer);
  size_t sent = 0;
  while (sent < n) {
    const ssize_t result = send(fd, bytes + sent, n - sent, MSG_NOSIGNAL);
    if (result > 0) {
      sent += static_cast<size_t>(result);
      continue;
    }
    if (result == 0) {
      log_debug("Connection was closed.\n");
      return 0;
    }
    if (errno != EINTR) {
      log_error("Send data to socket error. errno = %d - %s.\n", errno, std::strerror(errno));
      return -1;
    }
    log_debug("EINTR. ignore it.\n");
  }
  return static_cast<ssize_t>(n);
}
