#include "ctl/orvelctl.h"

#include "core/options.h"
#include "ctl/command_line.h"
#include "ctl/control_port.h"
#include "ctl/doctor.h"
#include "ctl/exit_status.h"
#include "ctl/printable.h"
#include "ctl/send_test.h"
#include "ctl/status.h"
#include "ctl/watch.h"

#include <csignal>
#include <cstdio>
#include <iostream>
#include <iterator>
#include <unistd.h>

namespace {

constexpr size_t most_shown = 200;  // of what some other program on the port says

int run_request(const ctl_command_line& line) {
  std::string reply;
  const int status =
      ask_agent(line.control_port, build_request(*line.request, line.members), line.timeout, &reply);
  if (status != exit_done) return status;
  const std::optional<int> result = parse_reply(reply);
  if (!result)
    return complain(exit_unreachable, "that was no answer of the agent: " + printable(reply, most_shown) +
                                          " (is --control_port right?)");
  const std::string words = result_in_words(line.request->command, *result);
  if (*result != 0) return complain(result_status(*result), words);
  std::puts(words.c_str());
  return finish_output(exit_done);
}

int run_raw(const ctl_command_line& line) {
  std::string request = line.raw;
  if (request == "-") request.assign(std::istreambuf_iterator<char>{std::cin}, {});
  std::string reply;
  const int status = ask_agent(line.control_port, request, line.timeout, &reply);
  if (status != exit_done) return status;
  std::puts((isatty(STDOUT_FILENO) == 1 ? printable(reply) : reply).c_str());
  const std::optional<int> result = parse_reply(reply);
  if (!result)
    return complain(exit_unreachable, "that was no answer of the agent (is --control_port right?)");
  if (*result == 0) return finish_output(exit_done);
  return complain(result_status(*result), result_in_words("", *result));
}

struct subcommand {
  const char* name;
  int (*run)(const ctl_command_line& line);
};
constexpr subcommand subcommands[] = {
    {"raw", run_raw},       {"status", run_status},       {"watch", run_watch},
    {"doctor", run_doctor}, {"send-test", run_send_test},
};

}  // namespace

int run_orvelctl(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  options.console_log =
      false;  // what the agent's code would log is nobody's business unless a command shows it
  options.file_log = false;
  int status = exit_done;
  const std::optional<ctl_command_line> line = read_command_line(argc, argv, &status);
  if (!line) return status;
  use_settings(line->files);
  if (line->request != nullptr) return run_request(*line);
  for (const subcommand& known : subcommands) {
    if (line->command == known.name) return known.run(*line);
  }
  return exit_usage;  // the command line knows no others
}
