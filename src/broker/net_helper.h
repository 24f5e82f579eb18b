#pragma once

#include "broker/net_connection.h"

#include <cstddef>
#include <netdb.h>
#include <sys/types.h>

// Sockets: connecting, keepalive options (tcp(7)), and loops that move an exact number of bytes.

/// A connected blocking stream socket (close-on-exec) to `address`, or -1 (logged, errno kept). An interrupted
/// connect is a failed one. The caller owns the descriptor.
[[nodiscard]] int socket_connect(const addrinfo* address);

/// The first IPv4 address of `host` by gethostbyname_r(3), which four decimal numbers don't need: 0 and `*address`
/// (network byte order), or -1 and `*resolver_error`, which hstrerror(3) puts in words. Blocks as long as the resolver
/// does. Any thread.
[[nodiscard]] int resolve_ipv4(const char* host, in_addr* address, int* resolver_error);

/// Switches TCP keepalive on. 0, or -1 (logged).
int set_keepalive(int fd);

/// set_keepalive(), then the time until the first probe (seconds), the number of probes and the seconds between
/// them, in this order; stops at the first failure. 0, or -1 (logged).
int set_keepalive_values(int fd, int idle, int count, int interval);

/// Reads exactly `n` bytes: n, 0 when the peer closed, -1 on error (both logged). An interrupted read is repeated
/// while keep_connection is set. Nothing in the agent calls it today: the session takes what is
/// there.
ssize_t recv_all(net_connection* connection, void* buffer, size_t n);

/// Sends exactly `n` bytes (send(2), no signal): n, 0 when nothing could be sent, -1 on error (both logged).
ssize_t send_all(int fd, const void* buffer, size_t n);
