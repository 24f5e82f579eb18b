#include "delivery/message_sender_delivery.h"

#include "broker/net_helper.h"
#include "core/log.h"
#include "core/owned.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace {

constexpr char log_source[] = "message_sender";

int connect_tcp(int fd, const char* host, uint16_t port) {
  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  peer.sin_port = htons(port);
  int resolver_error = 0;
  if (resolve_ipv4(host, &peer.sin_addr, &resolver_error) != 0) {
    log_warning("Can't resolve host '%s'. h_errno=%d - %s.\n", host, resolver_error,
                hstrerror(resolver_error));
    return -1;
  }
  if (connect(fd, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) != 0) {
    log_warning("Can't connect to '%s':%d, errno=%d - %s.\n", host, port, errno, std::strerror(errno));
    return -1;
  }
  return 0;
}

int connect_path(int fd, const char* path) {
  sockaddr_un peer{};
  const size_t length = std::strlen(path);
  // A cut path would name another file. One that fills the field needs no terminator.
  if (length > sizeof peer.sun_path) {
    errno = EINVAL;
    return -1;
  }
  peer.sun_family = AF_UNIX;
  std::memcpy(peer.sun_path, path, length);
  const auto peer_size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
  return connect(fd, reinterpret_cast<const sockaddr*>(&peer), peer_size);
}

int connect_unix(int fd, const char* path) {
  if (connect_path(fd, path) != 0) {
    log_warning("Can't connect to unix socket '%s', errno=%d - %s.\n", path, errno, std::strerror(errno));
    return -1;
  }
  return 0;
}

void send_message(int fd, const char* address, uint16_t port, const void* data, uint32_t length) {
  if (data == nullptr || length == 0) return;
  if (send_all(fd, data, length) != static_cast<ssize_t>(length)) {
    log_error("Failed to send msg to qhandler on port '%s':%d.\n", address, port);
    return;
  }
  log_info("Sent to handler %zu bytes.\n", size_t{length});
}

}  // namespace

void connect_and_send(const char* address, uint16_t port, const void* data, uint32_t length) {
  fd_owner fd{socket(port != 0 ? AF_INET : AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
  if (!fd.valid()) {
    log_error("Can't open socket: errno=%d-%s.\n", errno, std::strerror(errno));
    return;
  }
  const int connected = port != 0 ? connect_tcp(fd.get(), address, port) : connect_unix(fd.get(), address);
  if (connected == 0) send_message(fd.get(), address, port, data, length);
  if (close(fd.release()) != 0) {
    log_error("Failed to close socket: errno=%d-%s.\n", errno, std::strerror(errno));
  }
}
