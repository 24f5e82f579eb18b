#pragma once

#include "fuzz_input.h"

#include <netinet/in.h>
#include <string>
#include <vector>

// A proxy in memory, in the place of sockets, TLS and the resolver: what it will say on each connection, and what goes
// wrong, is laid down beforehand. It tells (story.h) what the agent sends and does.

/// What the proxy says on one connection.
struct proxy_script {
  std::vector<std::string> pieces;  ///< the agent reads at most one of them at a time
  bool resets;                      ///< how it ends: reading fails, or the proxy closes
};

enum class write_outcome : uint8_t { whole, one_byte_short, fails };

struct scripted_proxy {
  std::vector<proxy_script>
      connections;                    ///< the present one, and those that come when the agent connects again
  std::vector<write_outcome> writes;  ///< of the agent's writes, in order; further ones succeed
  bool refuses = false;               ///< connecting again fails
  bool tls_fails = false;
  bool resolves = true;
  in_addr address{};  ///< what every host resolves to
};

/// What the agent finds in this run.
extern scripted_proxy proxy;

/// Reads the script as the agent does: at most `size` bytes, "" at the end.
class script_reader {
public:
  explicit script_reader(proxy_script script) : script_{std::move(script)} {}

  [[nodiscard]] bool ended() const { return script_.pieces.empty(); }
  [[nodiscard]] bool resets() const { return script_.resets; }

  std::string read(size_t size) {
    if (ended()) return "";
    std::string& first = script_.pieces.front();
    std::string taken = first.substr(0, size);
    first.erase(0, size);
    if (first.empty()) script_.pieces.erase(script_.pieces.begin());
    return taken;
  }

private:
  proxy_script script_;
};

/// The part of a story that a write leads to.
std::string story_of_write(const std::string& bytes);

/// Lays down a script: form feeds in the text separate the connections, control bytes say the rest.
scripted_proxy read_script(fuzz_input* input, const std::string& text);
