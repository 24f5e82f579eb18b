#pragma once

#include "core/owned.h"

#include <string>

// The endpoints that watches add to the setting q_handler_event_sink: Unix sockets "events" in folders of their own,
// which are known by their names.

/// The setting's longest value: the agent cuts a longer one.
constexpr size_t longest_endpoints = 1023;

/// Is this endpoint one of a watch, running or not?
[[nodiscard]] bool is_watch_endpoint(const std::string& endpoint);

/// True when the endpoint is one of a watch that has ended without taking it away: nobody listens there.
[[nodiscard]] bool is_stale_watch(const std::string& endpoint);

/// Removes socket and folder of an endpoint for which is_watch_endpoint() holds.
void remove_watch_files(const std::string& endpoint);

/// The setting's value with `endpoint` behind what it holds, and without `endpoint`; the others stay as they are.
[[nodiscard]] std::string with_endpoint(const std::string& value, const std::string& endpoint);
[[nodiscard]] std::string without_endpoint(const std::string& value, const std::string& endpoint);

/// The setting's value without the endpoints of ended watches, whose files are removed.
[[nodiscard]] std::string without_stale_watches(const std::string& value);

/// A listening socket with its endpoint. Both go with remove_watch_files() and the descriptor's end.
struct watch_socket {
  fd_owner fd;
  std::string endpoint;
};

/// Makes a folder of mode 0700 in $XDG_RUNTIME_DIR, /run or /tmp (the first that takes it) with a socket of mode 0600 in
/// it. No descriptor, with errno, when none of them does.
[[nodiscard]] watch_socket open_watch_socket();
