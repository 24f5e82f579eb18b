#pragma once

#include "broker/net_connection.h"
#include "log_capture.h"
#include "peer.h"
#include "settings_file.h"

#include <initializer_list>
#include <netdb.h>
#include <optional>
#include <string>

// The proxy's end of a handshake, for tests: all that it will ever say is written beforehand.

/// Where one connects to reach a port of this machine.
class loopback_address {
public:
  explicit loopback_address(uint16_t port) : address_{loopback(port)} {
    info_.ai_family = AF_INET;
    info_.ai_socktype = SOCK_STREAM;
    info_.ai_addr = reinterpret_cast<sockaddr*>(&address_);
    info_.ai_addrlen = sizeof address_;
  }
  loopback_address(const loopback_address&) = delete;
  loopback_address& operator=(const loopback_address&) = delete;

  [[nodiscard]] const addrinfo* info() const { return &info_; }

private:
  sockaddr_in address_;
  addrinfo info_{};
};

/// Lets reads end some day, so that a handshake that waits for what never comes is a failed test.
inline void lose_patience(int fd) {
  const timeval patience{patience_ms / 1000, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
}

/// An address that refuses connections.
class refusing_address {
public:
  refusing_address() : bound_{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)} {
    const sockaddr_in any_port = loopback(0);
    if (bind(bound_.get(), reinterpret_cast<const sockaddr*>(&any_port), sizeof any_port) != 0) std::abort();
    address_.emplace(port_of(bound_.get()));
  }

  [[nodiscard]] const addrinfo* info() const { return address_->info(); }

private:
  fd_owner bound_;  // without listening: nobody else gets the port
  std::optional<loopback_address> address_;
};

/// A connection whose other end keeps the boundaries of what is written: each piece is one read.
class proxy_end {
public:
  proxy_end() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) std::abort();
    connection = {ends[0], nullptr, nullptr};
    lose_patience(ends[0]);
    peer_.reset(ends[1]);
  }
  ~proxy_end() {
    if (connection.socket >= 0) close(connection.socket);
  }
  proxy_end(const proxy_end&) = delete;
  proxy_end& operator=(const proxy_end&) = delete;

  void say(const std::string& piece) {
    ASSERT_EQ(send(peer_.get(), piece.data(), piece.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(piece.size()));
  }
  void say_byte_by_byte(const std::string& text) {
    for (const char byte : text) {
      say({byte});
    }
  }
  /// No word more, as when the proxy closes; what it is told can still be heard.
  void fall_silent() { shutdown(peer_.get(), SHUT_WR); }
  /// The proxy is gone.
  void leave() { peer_.reset(); }

  /// The next piece that the agent has sent; "" when there is none.
  std::string heard() {
    char piece[4096];
    const ssize_t size = recv(peer_.get(), piece, sizeof piece, MSG_DONTWAIT);
    return size > 0 ? std::string(piece, static_cast<size_t>(size)) : "";
  }

  net_connection connection{};

private:
  fd_owner peer_;
};

/// Collects the log of one handshake after the other.
class ProxyHandshake : public testing::Test {
protected:
  ProxyHandshake() {
    ignore_sigpipe();
    settings_file::fill({});
  }

  /// What was logged since the last call.
  std::string log() {
    const std::string text = log_.text();
    log_.restart();
    return text;
  }

private:
  log_capture log_;
};
