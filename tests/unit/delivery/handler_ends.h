#pragma once

#include "core/log.h"
#include "core/options.h"
#include "core/owned.h"

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <netinet/in.h>
#include <poll.h>
#include <sstream>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

// The other ends of deliveries, for tests.

/// Polls until `condition` holds; false when it still doesn't after a generous time.
inline bool eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds{60};
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds{2});
  }
  return true;
}

/// A folder of its own for one test.
class temporary_folder {
public:
  temporary_folder() {
    char name[] = "/tmp/orvel-delivery-XXXXXX";
    if (mkdtemp(name) == nullptr) std::abort();
    path_ = name;
  }
  ~temporary_folder() { std::filesystem::remove_all(path_); }
  temporary_folder(const temporary_folder&) = delete;
  temporary_folder& operator=(const temporary_folder&) = delete;

  [[nodiscard]] std::string file(const std::string& name) const { return path_ + "/" + name; }

  /// A path in this folder that is `length` characters long.
  [[nodiscard]] std::string file_of_length(size_t length) const {
    return file(std::string(length - path_.size() - 1, 's'));
  }

private:
  std::string path_;
};

inline std::string content_of(const std::string& path) {
  std::ifstream file{path, std::ios::binary};
  return {std::istreambuf_iterator<char>{file}, {}};
}

/// The lines of a console log without source and line number: "DEBUG: text".
inline std::vector<std::string> messages(const std::string& console) {
  std::vector<std::string> found;
  std::istringstream lines{console};
  for (std::string line; std::getline(lines, line);) {
    const size_t tag = line.find(": ", line.find(": ") + 1);
    if (tag != std::string::npos) found.push_back(line.substr(line.find_first_not_of(' ', tag + 1)));
  }
  return found;
}

inline size_t count_of(const std::string& text, std::string_view part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
    ++count;
  }
  return count;
}

/// A listening handler: on an unused loopback port, or on a Unix socket.
class listening_handler {
public:
  listening_handler() : fd_{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)} {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    listen_at(&address, size);
    getsockname(fd_.get(), reinterpret_cast<sockaddr*>(&address), &size);
    port_ = ntohs(address.sin_port);
  }
  explicit listening_handler(const std::string& path) : fd_{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)} {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() > sizeof address.sun_path) std::abort();
    std::memcpy(address.sun_path, path.data(), path.size());
    listen_at(&address, static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size()));
  }

  [[nodiscard]] uint16_t port() const { return port_; }
  [[nodiscard]] std::string endpoint() const { return "127.0.0.1:" + std::to_string(port_); }

  /// The next connection; none when nobody comes.
  [[nodiscard]] fd_owner accept_one() const {
    pollfd readable{fd_.get(), POLLIN, 0};
    if (poll(&readable, 1, 30'000) != 1) return {};
    return fd_owner{accept4(fd_.get(), nullptr, nullptr, SOCK_CLOEXEC)};
  }

  /// All that the next connection brings until it ends; "nobody" when there is none.
  [[nodiscard]] std::string receive() const {
    const fd_owner connection = accept_one();
    if (!connection.valid()) return "nobody";
    std::string bytes;
    char block[4096];
    for (ssize_t count = 0; (count = read(connection.get(), block, sizeof block)) > 0;) {
      bytes.append(block, static_cast<size_t>(count));
    }
    return bytes;
  }

  /// True when a connection waits to be accepted. A finished connect is seen at once.
  [[nodiscard]] bool has_connection() const {
    pollfd readable{fd_.get(), POLLIN, 0};
    return poll(&readable, 1, 0) == 1;
  }

  /// From now on connecting is refused.
  void stop() { fd_.reset(); }

private:
  template <typename address_type> void listen_at(const address_type* address, socklen_t size) {
    if (bind(fd_.get(), reinterpret_cast<const sockaddr*>(address), size) != 0) std::abort();
    if (listen(fd_.get(), 8) != 0) std::abort();
  }

  fd_owner fd_;
  uint16_t port_ = 0;
};

/// A text without repetition of short parts, so that a lost or doubled piece shows.
inline std::string payload_of(size_t length) {
  std::string bytes;
  for (unsigned i = 0; bytes.size() < length; ++i) {
    bytes += std::to_string(i * 2654435761U) + ";";
  }
  bytes.resize(length);
  return bytes;
}
