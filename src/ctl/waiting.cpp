#include "ctl/waiting.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <poll.h>

time_limit seconds_from_now(unsigned seconds) {
  return std::chrono::steady_clock::now() + std::chrono::seconds{seconds};
}

int milliseconds_until(time_limit limit) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(limit - std::chrono::steady_clock::now());
  return static_cast<int>(std::clamp<std::chrono::milliseconds::rep>(left.count(), 0, INT_MAX));
}

bool wait_ready(int fd, short events, time_limit limit) {
  pollfd watched{fd, events, 0};
  for (;;) {
    const int ready = poll(&watched, 1, milliseconds_until(limit));
    if (ready > 0) return true;
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0) errno = ETIMEDOUT;
    return false;
  }
}

fd_owner connect_within(const sockaddr* address, socklen_t size, time_limit limit) {
  fd_owner fd{socket(address->sa_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
  if (!fd.valid() || connect(fd.get(), address, size) == 0) return fd;
  if (errno != EINPROGRESS || !wait_ready(fd.get(), POLLOUT, limit)) return {};
  int error = 0;
  socklen_t error_size = sizeof error;
  if (getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &error, &error_size) != 0) return {};
  if (error == 0) return fd;
  fd.reset();
  errno = error;
  return {};
}
