#pragma once

#include <optional>
#include <span>
#include <string>
#include <vector>

// What the subcommands say to the control port, and what its answers mean. The documents are in docs/protocol.md.

enum class member_kind { text, number, flag };

/// A member of a request, which is an option of the same name on the command line.
struct request_member {
  const char* name;
  member_kind kind;
  bool required;
  const char* default_value;  ///< null: left out unless given
  const char* help;
};

/// A subcommand that is one request.
struct request_command {
  const char* name;     ///< of the subcommand
  const char* command;  ///< member "command" of the request
  const char* help;
  std::span<const request_member> members;
};

[[nodiscard]] std::span<const request_command> request_commands();

/// The request as JSON. `values` holds one value for each member of the command, in their order; what has none takes
/// its default or is left out. A flag is "true" or "false", a number decimal.
[[nodiscard]] std::string build_request(const request_command& command,
                                        const std::vector<std::optional<std::string>>& values);

/// The result code in the agent's answer, a whole number; none when the text is no such answer.
[[nodiscard]] std::optional<int> parse_reply(const std::string& text);

/// A result code in words, for the request `command` (member "command"; "" when it isn't known).
[[nodiscard]] std::string result_in_words(const std::string& command, int result);

/// The exit status for a result code: 0 for 0, 1 to 10 for those of -1 to -10 that have words, exit_other_code for
/// others.
[[nodiscard]] int result_status(int result);
