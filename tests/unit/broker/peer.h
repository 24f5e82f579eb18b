#pragma once

#include "broker/net_connection.h"
#include "core/owned.h"

#include <cerrno>
#include <csignal>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>

// The other end of a connection, for tests.

constexpr int patience_ms = 30'000;

/// Writing to a closed TLS stream raises SIGPIPE, which the program ignores.
inline void ignore_sigpipe() {
  std::signal(SIGPIPE, SIG_IGN);
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

/// True when the other end closes before it sends anything more.
inline bool ends_without_data(int fd) {
  pollfd readable{fd, POLLIN, 0};
  char byte = 0;
  return poll(&readable, 1, patience_ms) == 1 && read(fd, &byte, 1) == 0;
}

/// A plain connection and its peer.
struct connected_pair {
  connected_pair() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) std::abort();
    connection = {ends[0], nullptr, nullptr};
    peer.reset(ends[1]);
  }
  ~connected_pair() {
    if (connection.socket >= 0) close(connection.socket);
  }
  connected_pair(const connected_pair&) = delete;
  connected_pair& operator=(const connected_pair&) = delete;

  net_connection connection{};
  fd_owner peer;
};

/// A listening socket on an unused loopback port.
class loopback_listener {
public:
  explicit loopback_listener(int family = AF_INET) : fd_{socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0)} {
    sockaddr_storage address{};
    address.ss_family = static_cast<sa_family_t>(family);
    if (family == AF_INET) {
      reinterpret_cast<sockaddr_in&>(address).sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    } else {
      reinterpret_cast<sockaddr_in6&>(address).sin6_addr = in6addr_loopback;
    }
    socklen_t size = family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
    usable_ = bind(fd_.get(), reinterpret_cast<sockaddr*>(&address), size) == 0 && listen(fd_.get(), 8) == 0;
    getsockname(fd_.get(), reinterpret_cast<sockaddr*>(&address), &size);
    port_ = ntohs(family == AF_INET ? reinterpret_cast<sockaddr_in&>(address).sin_port
                                    : reinterpret_cast<sockaddr_in6&>(address).sin6_port);
  }

  [[nodiscard]] bool usable() const { return usable_; }
  [[nodiscard]] uint16_t port() const { return port_; }

  /// The next connection; none when patience is over.
  [[nodiscard]] fd_owner accept_one() const {
    pollfd readable{fd_.get(), POLLIN, 0};
    if (poll(&readable, 1, patience_ms) != 1) return {};
    return fd_owner{accept4(fd_.get(), nullptr, nullptr, SOCK_CLOEXEC)};
  }

  /// From now on connecting to the port is refused.
  void stop() { fd_.reset(); }

private:
  fd_owner fd_;
  bool usable_ = false;
  uint16_t port_ = 0;
};
