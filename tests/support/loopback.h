#pragma once

#include "core/owned.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>

// The other end of a connection, for tests.

constexpr int patience_ms = 30'000;

inline sockaddr_in loopback(uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  return address;
}

inline uint16_t port_of(int fd) {
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
  return ntohs(address.ss_family == AF_INET ? reinterpret_cast<sockaddr_in&>(address).sin_port
                                            : reinterpret_cast<sockaddr_in6&>(address).sin6_port);
}

/// Reads until `n` bytes are there, the stream ends, or patience is over.
inline std::string read_bytes(int fd, size_t n) {
  std::string bytes;
  while (bytes.size() < n) {
    pollfd readable{fd, POLLIN, 0};
    if (poll(&readable, 1, patience_ms) != 1) break;
    char block[4096];
    const ssize_t count = read(fd, block, std::min(sizeof block, n - bytes.size()));
    if (count <= 0) break;
    bytes.append(block, static_cast<size_t>(count));
  }
  return bytes;
}

/// All bytes until the stream ends.
inline std::string read_all(int fd) {
  return read_bytes(fd, SIZE_MAX);
}

/// True when the other end closes before it sends anything more.
inline bool ends_without_data(int fd) {
  pollfd readable{fd, POLLIN, 0};
  char byte = 0;
  return poll(&readable, 1, patience_ms) == 1 && read(fd, &byte, 1) == 0;
}

/// A listening socket: on an unused loopback port, or on a Unix socket.
class loopback_listener {
public:
  explicit loopback_listener(int family = AF_INET, int backlog = 8)
      : fd_{socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0)} {
    sockaddr_in ipv4 = loopback(0);
    sockaddr_in6 ipv6{};
    ipv6.sin6_family = AF_INET6;
    ipv6.sin6_addr = in6addr_loopback;
    if (family == AF_INET) listen_at(&ipv4, sizeof ipv4, backlog);
    if (family == AF_INET6) listen_at(&ipv6, sizeof ipv6, backlog);
    port_ = port_of(fd_.get());
  }
  explicit loopback_listener(const std::string& path) : fd_{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)} {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() > sizeof address.sun_path) std::abort();
    std::memcpy(address.sun_path, path.data(), path.size());
    listen_at(&address, offsetof(sockaddr_un, sun_path) + path.size(), 8);
  }

  /// False when the system has no such addresses.
  [[nodiscard]] bool usable() const { return usable_; }
  [[nodiscard]] uint16_t port() const { return port_; }
  [[nodiscard]] int fd() const { return fd_.get(); }

  /// The next connection; none when patience is over.
  [[nodiscard]] fd_owner accept_one() const {
    pollfd readable{fd_.get(), POLLIN, 0};
    if (poll(&readable, 1, patience_ms) != 1) return {};
    return fd_owner{accept4(fd_.get(), nullptr, nullptr, SOCK_CLOEXEC)};
  }

  /// True when a connection waits to be accepted. A finished connect is seen at once.
  [[nodiscard]] bool has_connection() const {
    pollfd readable{fd_.get(), POLLIN, 0};
    return poll(&readable, 1, 0) == 1;
  }

  /// From now on connecting is refused.
  void stop() { fd_.reset(); }

private:
  template <typename address_type> void listen_at(const address_type* address, size_t size, int backlog) {
    usable_ =
        bind(fd_.get(), reinterpret_cast<const sockaddr*>(address), static_cast<socklen_t>(size)) == 0 &&
        listen(fd_.get(), backlog) == 0;
  }

  fd_owner fd_;
  bool usable_ = false;
  uint16_t port_ = 0;
};
