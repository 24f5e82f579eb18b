#pragma once

#include "loopback.h"
#include "temp_folder.h"

#include <string>

// The other ends of deliveries, for tests.

/// A handler that listens on a loopback port or on a Unix socket.
struct listening_handler : loopback_listener {
  listening_handler() = default;
  explicit listening_handler(const std::string& path) : loopback_listener{path} {}

  [[nodiscard]] std::string endpoint() const { return "127.0.0.1:" + std::to_string(port()); }

  /// All that the next connection brings until it ends; "nobody" when there is none.
  [[nodiscard]] std::string receive() const {
    const fd_owner connection = accept_one();
    return connection.valid() ? read_all(connection.get()) : "nobody";
  }
};

/// A path in `folder` that is `length` characters long.
inline std::string path_of_length(const temp_folder& folder, size_t length) {
  return folder / std::string(length - folder.path().size() - 1, 's');
}

/// A text without repetition of short parts, so that a lost or doubled piece shows.
inline std::string payload_of(size_t length) {
  std::string bytes;
  for (unsigned i = 0; bytes.size() < length; ++i) {
    bytes += std::to_string(i * 2654435761U) + ";";
  }
  bytes.resize(length);
  return bytes;
}
