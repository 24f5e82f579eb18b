#pragma once

#include <cstdint>
#include <string>

// The client's side of the control port (docs/protocol.md).

/// Sends `request`, closes the sending side and collects the answer until the agent closes. 0, or with errno -1 when there
/// was no connection, -2 when the request may have got there. ECONNREFUSED with -1: nothing listens there; ETIMEDOUT: the
/// whole takes longer than `timeout` seconds.
[[nodiscard]] int exchange(uint16_t port, const std::string& request, unsigned timeout, std::string* reply);

/// As exchange(), and explains a failure on standard error: exit_done, or the exit status.
[[nodiscard]] int ask_agent(uint16_t port, const std::string& request, unsigned timeout, std::string* reply);
