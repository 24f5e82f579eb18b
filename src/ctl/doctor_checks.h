#pragma once

#include "ctl/command_line.h"

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

// What doctor looks at. Each check tells what it has found; those that read files or the network say so.

struct finding {
  bool wrong;
  std::string text;
  std::string advice;  ///< what to do; "" when nothing is wrong
};
using findings = std::vector<finding>;

inline finding fine(std::string text) {
  return {false, std::move(text), ""};
}
inline finding wrong(std::string text, std::string advice) {
  return {true, std::move(text), std::move(advice)};
}

/// The value of the setting `key` as one of the cloud's addresses.
[[nodiscard]] finding check_url(const std::string& key, const std::string& value);
/// The value of the setting `key` as a number, or as a port if it ends so; "" is not set, which is fine.
[[nodiscard]] finding check_number(const std::string& key, const std::string& value);
/// The clock's `now` against the time when this program was built.
[[nodiscard]] finding check_clock(time_t now, time_t built);
/// The certificates (PEM) in `text`, read from `name`, at the time `now`.
[[nodiscard]] findings check_certificates(const std::string& name, std::string_view text, time_t now);
/// The mode of the settings file `path`; `holds_secrets` means that nobody else may read it.
[[nodiscard]] finding check_mode(const std::string& path, unsigned mode, bool holds_secrets);
/// Does a listening TCP socket of `table` (the text of /proc/net/tcp or tcp6) take connections to this IPv4 address of
/// the machine itself (network byte order) at this port?
[[nodiscard]] bool listens_on(std::string_view table, uint32_t address, uint16_t port);

// These read the settings, files and the network.

[[nodiscard]] findings check_files(const ctl_command_line& line);
[[nodiscard]] findings check_urls_and_numbers();
[[nodiscard]] findings check_trust(const ctl_command_line& line);
[[nodiscard]] findings check_proxy(unsigned timeout);
[[nodiscard]] findings check_handlers(const ctl_command_line& line);
[[nodiscard]] finding check_pid_file(const std::string& path);
