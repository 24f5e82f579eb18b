#pragma once

#include "core/owned.h"
#include "loopback.h"

#include <mutex>
#include <poll.h>
#include <string>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <thread>
#include <vector>

namespace http_test {

/// A plain HTTP server, or proxy, on a thread of its own. It collects what each client sends, and gives each the
/// same answer; with an empty answer it keeps the client waiting.
class server {
public:
  explicit server(std::string answer) : answer_{std::move(answer)} {
    thread_ = std::thread{[this] { serve(); }};
  }
  ~server() {
    eventfd_write(stop_.get(), 1);
    thread_.join();
  }
  server(const server&) = delete;
  server& operator=(const server&) = delete;

  [[nodiscard]] std::string port() const { return std::to_string(socket_.port()); }
  [[nodiscard]] std::string url() const { return "http://127.0.0.1:" + port() + "/v1"; }

  /// Each client's whole request so far; an unreadable one (no HTTP) as far as it came at once.
  [[nodiscard]] std::vector<std::string> requests() const {
    const std::scoped_lock lock{lock_};
    return requests_;
  }

private:
  /// True when `fd` can be read, false when the server is to stop.
  bool readable(int fd) const {
    pollfd watched[] = {{fd, POLLIN, 0}, {stop_.get(), POLLIN, 0}};
    while (poll(watched, 2, -1) < 0) {
    }
    return watched[1].revents == 0;
  }

  void serve() {
    while (readable(socket_.fd())) {
      const fd_owner client{accept4(socket_.fd(), nullptr, nullptr, SOCK_CLOEXEC)};
      if (!client.valid()) continue;
      if (!take_request(client.get())) continue;
      if (answer_.empty()) readable(client.get());
      send_answer(client.get());
    }
  }

  static bool complete(const std::string& request) {
    if (!request.empty() && request[0] < ' ') return true;  // binary
    const size_t end = request.find("\r\n\r\n");
    if (end == std::string::npos) return false;
    const size_t field = request.find("Content-Length: ");
    if (field == std::string::npos || field > end) return true;
    return request.size() >= end + 4 + std::stoul(request.substr(field + 16));
  }

  bool take_request(int client) {
    std::string request;
    char bytes[4096];
    while (!complete(request)) {
      const ssize_t count = readable(client) ? recv(client, bytes, sizeof bytes, 0) : 0;
      if (count <= 0) return false;
      request.append(bytes, static_cast<size_t>(count));
    }
    const std::scoped_lock lock{lock_};
    requests_.push_back(request);
    return true;
  }

  void send_answer(int client) const {
    size_t sent = 0;
    while (sent < answer_.size()) {
      const ssize_t count = send(client, answer_.data() + sent, answer_.size() - sent, MSG_NOSIGNAL);
      if (count <= 0) return;
      sent += static_cast<size_t>(count);
    }
  }

  loopback_listener socket_{AF_INET, 16};
  fd_owner stop_{eventfd(0, EFD_CLOEXEC)};
  std::string answer_;
  mutable std::mutex lock_;
  std::vector<std::string> requests_;
  std::thread thread_;
};

inline std::string answer(int status, const std::string& body) {
  return "HTTP/1.1 " + std::to_string(status) +
         " Word\r\nX-Test: yes\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\nConnection: close\r\n\r\n" + body;
}

}  // namespace http_test
