#pragma once

#include "ctl/request.h"
#include "ctl/settings.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// What the user asks for. The defaults are the agent's own.
struct ctl_command_line {
  settings_files files;
  std::string pid_file = "/tmp/orvel.pid";
  std::string connectivity_log;  ///< "" when none is named
  uint16_t control_port = 14369;
  unsigned timeout = 60;  ///< seconds

  std::string command;                              ///< the subcommand's name
  const request_command* request = nullptr;         ///< of a subcommand that is one request
  std::vector<std::optional<std::string>> members;  ///< the values for it, see build_request()

  std::string raw;  ///< raw: the text, or "-"
  bool json = false;
  std::string handler;  ///< send-test: its name
  std::optional<std::string> text;
  std::string file = "-";  ///< of the message; "-" is standard input
  bool verbose = false;
  std::string ca_file;  ///< doctor: as the agent's options
  std::string ca_path;
};

/// Reads the command line. None when there is nothing left to do, with the exit status in `*status`: help or version
/// were printed, or the command line was wrong (complained about).
[[nodiscard]] std::optional<ctl_command_line> read_command_line(int argc, char** argv, int* status);
