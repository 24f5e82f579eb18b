#include "ctl/status.h"

#include "cloud/json_text.h"
#include "core/owned.h"
#include "ctl/connectivity.h"
#include "ctl/exit_status.h"
#include "ctl/pid_file.h"
#include "ctl/printable.h"
#include "usi.h"

#include <cstdio>
#include <cstring>
#include <utility>

namespace {

const char* yes_or_no(bool value) {
  return value ? "yes" : "no";
}

/// Reads the state keys. 0, or the settings library's negative code.
///
/// The version is the one that the running agent wrote at its start: asking its program instead would mean to start
/// whatever a file in /tmp leads to, possibly as root.
int read_state(agent_status* status) {
  struct flag_key {
    const char* key;
    bool* flag;
  };
  for (const auto& [key, flag] :
       {flag_key{"q_agent_registered", &status->registered}, flag_key{"q_agent_claimed", &status->claimed},
        flag_key{"q_agent_connected", &status->connected}}) {
    const setting found = read_setting(key);
    if (found.code < 0) return found.code;
    *flag = found.value == "1";
  }
  setting version = read_setting("q_version");
  status->version = std::move(version.value);
  return version.code;
}

void read_since(const std::string& log, agent_status* status) {
  if (log.empty()) return;
  connectivity last = read_connectivity(log);
  // An agent that was killed left "connected" as its last word.
  if (last.known && last.connected == status->connected) status->since = std::move(last.since);
}

}  // namespace

std::string status_as_text(const agent_status& status) {
  std::string text;
  const auto add = [&text](const char* name, const std::string& value) {
    text += std::string{name} + ':';
    text.append(12 - std::strlen(name), ' ');
    text += value + '\n';
  };
  add("agent", status.running ? "running, pid " + std::to_string(status.pid) : "not running");
  add("version", status.version.empty() ? "not known" : printable(status.version));
  add("registered", yes_or_no(status.registered));
  add("claimed", yes_or_no(status.claimed));
  add("connected",
      yes_or_no(status.connected) + (status.since.empty() ? "" : " since " + printable(status.since)));
  return text;
}

std::string status_as_json(const agent_status& status) {
  const json_ptr document{cJSON_CreateObject()};
  cJSON_AddBoolToObject(document.get(), "running", status.running ? 1 : 0);
  const auto add_text = [&document](const char* name, const std::string& value) {
    cJSON_AddItemToObject(document.get(), name,
                          value.empty() ? cJSON_CreateNull() : cJSON_CreateString(value.c_str()));
  };
  cJSON_AddItemToObject(document.get(), "pid",
                        status.running ? cJSON_CreateNumber(status.pid) : cJSON_CreateNull());
  add_text("version", status.version);
  cJSON_AddBoolToObject(document.get(), "registered", status.registered ? 1 : 0);
  cJSON_AddBoolToObject(document.get(), "claimed", status.claimed ? 1 : 0);
  cJSON_AddBoolToObject(document.get(), "connected", status.connected ? 1 : 0);
  add_text("since", status.since);
  const c_string text{cJSON_PrintUnformatted(document.get())};
  return (text ? std::string{text.get()} : "") + '\n';
}

int run_status(const ctl_command_line& line) {
  const pid_file_view pid_file = look_at_pid_file(line.pid_file);
  if (pid_file.state == pid_file_state::unreadable) {
    return complain(exit_file, line.pid_file + " can't be read (" + std::strerror(pid_file.error) +
                                   "): try it as the user that the agent runs as");
  }
  agent_status status{};
  status.running = pid_file.state == pid_file_state::running;
  status.pid = status.running ? pid_file.pid : 0;
  const int code = read_state(&status);
  if (code < 0) {
    return complain(exit_file, "the settings can't be read (" + std::string{usiStrerror(code)} +
                                   "): try it as the user that the agent runs as, or name them with -c");
  }
  status.connected = status.connected && status.running;  // an agent that was killed left its last state
  read_since(line.connectivity_log, &status);
  std::fputs((line.json ? status_as_json(status) : status_as_text(status)).c_str(), stdout);
  return finish_output(status.running ? exit_done : exit_not_running);
}
