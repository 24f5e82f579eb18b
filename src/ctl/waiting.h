#pragma once

#include "core/owned.h"

#include <chrono>
#include <sys/socket.h>

// Waiting on descriptors until a point in time. Failures set errno; the time being over is ETIMEDOUT.

/// A point in time on the monotonic clock.
using time_limit = std::chrono::steady_clock::time_point;

[[nodiscard]] time_limit seconds_from_now(unsigned seconds);

/// Milliseconds until then, at least 0: a time-out for poll(2).
[[nodiscard]] int milliseconds_until(time_limit limit);

/// Waits until `fd` is ready for `events` of poll(2), or has failed. False, with errno, when the time is over.
[[nodiscard]] bool wait_ready(int fd, short events, time_limit limit);

/// A connected, non-blocking stream socket; none, with errno, when there is no connection in time.
[[nodiscard]] fd_owner connect_within(const sockaddr* address, socklen_t size, time_limit limit);
