#pragma once

#include "core/owned.h"

#include <string>
#include <vector>

// The endpoints that watches add to the setting q_handler_event_sink: Unix sockets "events" in folders of their own,
// which are known by their names.

/// The setting's longest value: the agent cuts a longer one.
constexpr size_t longest_endpoints = 1023;

/// Is this endpoint one of a watch, running or not?
[[nodiscard]] bool is_watch_endpoint(const std::string& endpoint);

/// True when the endpoint is one of a watch that has ended without taking it away: nobody listens there.
[[nodiscard]] bool is_stale_watch(const std::string& endpoint);

/// Why nothing may be delivered to this endpoint, though it has the name of a watch: it is no socket, or neither root, this
/// user nor the owner of the settings file `storage` has made it. "" for all others.
[[nodiscard]] std::string watch_danger(const std::string& endpoint, const std::string& storage);

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

/// Where sockets may be made, the best first: $XDG_RUNTIME_DIR if it is this user's alone, /run for root, and the folder of
/// the settings file `storage`. None of them lets others put a program in the place of a socket that was left.
[[nodiscard]] std::vector<std::string> watch_folders(const std::string& storage);

/// Makes a folder of mode 0700 in the first of `folders` that takes it, with a socket of mode 0600 in it. No descriptor,
/// with the reasons in `*problems`, when none of them does.
[[nodiscard]] watch_socket open_watch_socket(const std::vector<std::string>& folders, std::string* problems);
