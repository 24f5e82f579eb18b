#include "ctl/command_line.h"

#include "core/version.h"
#include "ctl/exit_status.h"

#include <CLI/CLI.hpp>
#include <climits>
#include <list>

namespace {

constexpr char description[] = "Speaks with the agent orvel and looks after its settings.";
constexpr char more[] =
    "Exit status: 0 done, 1 refused or something is wrong, 3 not running (status), 4 to 11 what a "
    "request ended with, 64 wrong command line, 69 the agent can't be reached, 74 a file can't be "
    "read or written, 75 no answer in time.";

/// What a subcommand's options write to while the library parses.
struct request_values {
  const request_command* request;
  std::vector<std::string> texts;
  std::vector<CLI::Option*> options;
};

void add_global_options(CLI::App* app, ctl_command_line* line) {
  app->add_option("-c,--config_file", line->files.storage, "settings file")->option_text("FILE");
  app->add_option("--usi_profile", line->files.profile, "the settings library's defaults")
      ->option_text("FILE");
  app->add_option("--usi_conf,--usi_config", line->files.config, "the settings library's options")
      ->option_text("FILE");
  app->add_option("--control_port", line->control_port, "the agent's control port (14369)")
      ->option_text("PORT")
      ->check(CLI::Range(1, 65535));
  app->add_option("--pid_file", line->pid_file, "the agent's pid file (/tmp/orvel.pid)")->option_text("FILE");
  app->add_option("--connectivity_log_file,--connectivity-log", line->connectivity_log,
                  "the agent's log of connects and disconnects")
      ->option_text("FILE");
  app->add_option("--timeout", line->timeout,
                  "longest wait for the agent, a proxy or a handler, in seconds (60)")
      ->option_text("SECONDS")
      ->check(CLI::Range(1, 86400));
}

void add_member(CLI::App* command, const request_member& member, request_values* values) {
  values->texts.emplace_back();
  CLI::Option* option =
      command->add_option(std::string{"--"} + member.name, values->texts.back(), member.help);
  option->required(member.required);
  switch (member.kind) {
  case member_kind::text:
    option->option_text("TEXT");
    break;
  case member_kind::number:
    option->option_text("NUMBER")->check(CLI::TypeValidator<int>("NUMBER"))->check(CLI::Range(0, INT_MAX));
    break;
  case member_kind::flag:
    option->option_text("true|false")->check(CLI::IsMember({"true", "false"}));
    break;
  }
  const char* note = member.required ? "required" : member.default_value;
  if (note != nullptr) option->description(std::string{member.help} + " (" + note + ")");
  values->options.push_back(option);
}

/// `all` keeps what the options point to.
void add_requests(CLI::App* app, std::list<request_values>* all) {
  for (const request_command& request : request_commands()) {
    CLI::App* command = app->add_subcommand(request.name, request.help);
    request_values& values = all->emplace_back(request_values{&request, {}, {}});
    values.texts.reserve(request.members.size());  // the options hold references
    for (const request_member& member : request.members) {
      add_member(command, member, &values);
    }
  }
}

void add_other_commands(CLI::App* app, ctl_command_line* line) {
  CLI::App* raw = app->add_subcommand("raw", "send a request as it stands, print the answer as it comes");
  raw->add_option("JSON", line->raw, "the request's text, or - for standard input")->required();

  CLI::App* status = app->add_subcommand("status", "tell whether the agent runs, and its state");
  status->add_flag("--json", line->json, "as a JSON document");

  app->add_subcommand("watch", "print each state document as it comes, until interrupted");

  CLI::App* send = app->add_subcommand("send-test", "deliver a message to a handler as the agent would");
  send->add_option("HANDLER", line->handler, "the handler's name")->required();
  CLI::Option* text = send->add_option("--text", line->text, "the message")->option_text("TEXT");
  send->add_option("--file", line->file, "the file that holds it; - is standard input, the default")
      ->option_text("FILE")
      ->excludes(text);
  send->add_flag("--verbose", line->verbose, "show all that the agent would log at level DEBUG");

  CLI::App* doctor = app->add_subcommand("doctor", "look for what is wrong on this device");
  doctor->add_option("--ca_file", line->ca_file, "the agent's option --ca_file")->option_text("FILE");
  doctor->add_option("--ca_path", line->ca_path, "the agent's option --ca_path")->option_text("FOLDER");
}

void take_request(const std::list<request_values>& all, ctl_command_line* line) {
  for (const request_values& values : all) {
    if (line->command != values.request->name) continue;
    line->request = values.request;
    for (size_t i = 0; i < values.texts.size(); ++i) {
      line->members.push_back(values.options[i]->count() > 0 ? std::optional{values.texts[i]} : std::nullopt);
    }
  }
}

std::string one_line(std::string text) {
  for (char& c : text) {
    if (c == '\n') c = ' ';
  }
  return text;
}

}  // namespace

std::optional<ctl_command_line> read_command_line(int argc, char** argv, int* status) {
  ctl_command_line line;
  std::list<request_values> requests;
  CLI::App app{description, "orvelctl"};
  app.footer(more);
  app.set_version_flag("-v,--version", std::string{"Version "} + version_string + version_suffix);
  app.require_subcommand(1);
  app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);  // as the agent does it
  app.fallthrough();  // the global options may stand behind the command too
  add_global_options(&app, &line);
  add_requests(&app, &requests);
  add_other_commands(&app, &line);
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& wish) {  // help or version
    *status = finish_output(app.exit(wish));
    return std::nullopt;
  } catch (const CLI::ParseError& error) {
    *status =
        complain(exit_usage, one_line(error.what()) + "; see orvelctl --help, or --help behind a command");
    return std::nullopt;
  }
  line.command = app.get_subcommands().front()->get_name();
  take_request(requests, &line);
  return line;
}
