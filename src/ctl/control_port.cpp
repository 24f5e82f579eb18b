#include "ctl/control_port.h"

#include "ctl/exit_status.h"
#include "ctl/waiting.h"

#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <poll.h>
#include <string_view>

namespace {

constexpr size_t largest_reply = 65536;

int send_request(int fd, std::string_view rest, time_limit limit) {
  while (!rest.empty()) {
    const ssize_t count = send(fd, rest.data(), rest.size(), MSG_NOSIGNAL);
    if (count > 0) {
      rest.remove_prefix(static_cast<size_t>(count));
    } else if (errno == EAGAIN) {
      if (!wait_ready(fd, POLLOUT, limit)) return -1;
    } else if (errno != EINTR) {
      return -1;
    }
  }
  return shutdown(fd, SHUT_WR);
}

int read_reply(int fd, std::string* reply, time_limit limit) {
  char block[4096];
  while (reply->size() < largest_reply) {
    const ssize_t count = recv(fd, block, sizeof block, 0);
    if (count == 0) return 0;
    if (count > 0) {
      reply->append(block, static_cast<size_t>(count));
    } else if (errno == EAGAIN) {
      if (!wait_ready(fd, POLLIN, limit)) return -1;
    } else if (errno != EINTR) {
      return -1;
    }
  }
  errno = EMSGSIZE;
  return -1;
}

}  // namespace

int exchange(uint16_t port, const std::string& request, unsigned timeout, std::string* reply) {
  sockaddr_in agent{};
  agent.sin_family = AF_INET;
  agent.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  agent.sin_port = htons(port);
  const time_limit limit = seconds_from_now(timeout);
  const fd_owner fd = connect_within(reinterpret_cast<const sockaddr*>(&agent), sizeof agent, limit);
  if (!fd.valid()) return -1;
  const bool answered =
      send_request(fd.get(), request, limit) == 0 && read_reply(fd.get(), reply, limit) == 0;
  return answered ? 0 : -2;
}

int ask_agent(uint16_t port, const std::string& request, unsigned timeout, std::string* reply) {
  const int result = exchange(port, request, timeout, reply);
  if (result == 0) return exit_done;
  const std::string place = "127.0.0.1:" + std::to_string(port);
  const std::string hint = result == -2 ? "; the request may have been executed, or may still be" : "";
  switch (errno) {
  case ECONNREFUSED:
    return complain(exit_unreachable,
                    "nothing listens on " + place +
                        ": start the agent (orvelctl status tells whether it runs), or name "
                        "its port with --control_port");
  case ETIMEDOUT:
    return complain(
        exit_timeout,
        "no answer from " + place + " within " + std::to_string(timeout) +
            " s: the agent serves one client at a time and may be busy with another one or with an "
            "exchange; try again, or wait longer with --timeout" +
            hint);
  default:
    return complain(exit_unreachable, "the exchange with " + place + " failed (" + std::strerror(errno) +
                                          "): the agent may have ended; see orvelctl status" + hint);
  }
}
