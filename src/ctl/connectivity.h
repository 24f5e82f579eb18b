#pragma once

#include <string>
#include <string_view>

// What the agent's connectivity log tells (docs/logging.md). The agent repeats a state whenever it reports, so the
// present one began with the first line of the last unbroken run.

struct connectivity {
  bool known;         ///< the log names a state
  bool connected;     ///< the last one
  std::string since;  ///< time stamp of the run's first line that was found
};

/// Reads a piece of the log from its end backwards into `found` (first `connectivity{}`): the newest piece first, then
/// older ones. True when the beginning of the present state was seen, so that older pieces tell nothing more.
bool scan_backwards(std::string_view text, connectivity* found);

/// What the log and its older generations (also compressed) tell. Not known when there is none.
[[nodiscard]] connectivity read_connectivity(const std::string& path);
