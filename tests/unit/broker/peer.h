#pragma once

#include "broker/net_connection.h"
#include "core/owned.h"
#include "loopback.h"

#include <csignal>
#include <cstdlib>
#include <sys/socket.h>

// The other end of the broker's connection, for tests.

/// Writing to a closed TLS stream raises SIGPIPE, which the program ignores.
inline void ignore_sigpipe() {
  std::signal(SIGPIPE, SIG_IGN);
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
