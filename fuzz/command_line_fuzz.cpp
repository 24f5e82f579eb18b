// The command line, one argument a line, against a reading with one map.

#include "core/args.h"
#include "core/exit_process.h"
#include "core/options.h"
#include "core/owned.h"
#include "naive_numbers.h"
#include "story.h"
#include "usi.h"

#include <algorithm>
#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <map>

namespace {

// Everything that the command line sets, by name. What is not set is not there.
using naive_state = std::map<std::string, std::string>;

constexpr int result_of_version = 1000;

std::jmp_buf version_exit;
naive_state library_paths;

// --- standard output, in memory

struct captured_output {
  captured_output() { stdout = open_memstream(&text, &size); }
  char* text = nullptr;
  size_t size = 0;
};

captured_output& output() {
  static captured_output only;
  return only;
}

// What was printed since the last call.
std::string take_output() {
  std::fflush(stdout);
  std::string text{output().text, output().size};
  std::rewind(stdout);
  return text;
}

std::string usage() {
  take_output();
  print_usage("orvel");
  return take_output();
}

// --- the naive reading

const std::map<std::string, std::pair<const char*, const char*>> switches = {
    {"-d", {"daemon", "1"}},
    {"--daemon", {"daemon", "1"}},
    {"-w", {"watchdog", "1"}},
    {"--watchdog", {"watchdog", "1"}},
    {"--start_paused", {"start paused", "1"}},
    {"--disable_console", {"console", "0"}},
    {"--disable_log_file", {"file", "0"}},
    {"--enable_extra_parameters_for_dal", {"extra", "1"}},
    {"--log_debug", {"level", "1"}},
    {"--log_info", {"level", "2"}},
    {"--log_warning", {"level", "3"}},
    {"--log_error", {"level", "4"}},
    {"--log_silent", {"level", "5"}},
};

const std::map<std::string, const char*> texts = {
    {"-c", "storage"},
    {"--config_file", "storage"},
    {"--usi_profile", "profile"},
    {"--usi_conf", "conf"},
    {"--ca_path", "ca path"},
    {"--ca_file", "ca file"},
    {"--hardware_id", "hardware id"},
    {"--model_id", "model id"},
    {"--log_file", "log file"},
    {"--connectivity_log_file", "connectivity log"},
    {"-s", "service id"},
    {"--service_id", "service id"},
    {"--discovery_data", "discovery data"},
    {"--discovery_id", "discovery id"},
    {"--carrier_id", "carrier id"},
    {"--pid_file", "pid file"},
    {"--watchdog_pid_file", "watchdog pid file"},
};

struct naive_line {
  naive_state state{{"daemon", "0"},
                    {"watchdog", "0"},
                    {"start paused", "0"},
                    {"console", "1"},
                    {"file", "1"},
                    {"extra", "0"},
                    {"level", "1"},  // as begin_run() sets it
                    {"model id", "Unknown"},
                    {"count", "5"},
                    {"size", "4194304"},
                    {"port", "14369"},
                    {"discovery time", "0"},
                    {"heartbeat", "0"},
                    {"agent keepalive", "0 0 0"},
                    {"broker keepalive", "0 0 0"}};
  std::string log;
  std::string printed;
  int error = 0;  // errno: what an earlier number left counts against a heartbeat of 0

  // As strtol(3) with errno cleared.
  int32_t number(const std::string& text) {
    const naive_number found = read_number(text, 10);
    error = found.out_of_range ? ERANGE : 0;
    return found.value;
  }

  uint32_t size_of(const std::string& text) {
    if (text.empty()) return 1048576;
    const int32_t count = number(text.substr(0, text.size() - 1));
    const auto unit = static_cast<char>(text.back() | 0x20);
    if (count <= 0 || (unit != 'k' && unit != 'm')) return 1048576;
    return static_cast<uint32_t>(uint64_t{static_cast<uint32_t>(count)} * (unit == 'k' ? 1024 : 1048576));
  }

  void take_uint(const std::string& value, const char* key, const char* what, uint32_t mask) {
    const int32_t read = number(value);
    if (read < 0) {
      log += formatted("W:incorrect value for %s: '%s'\n", what, value.c_str());
    } else {
      state[key] = std::to_string(static_cast<uint32_t>(read) & mask);
    }
  }

  void take_value(const std::string& name, const std::string& value) {
    if (texts.contains(name)) {
      state[texts.at(name)] = value;
    } else if (name == "--log_file_cnt") {
      state["count"] = std::to_string(number(value));
    } else if (name == "--log_file_size") {
      state["size"] = std::to_string(size_of(value));
    } else if (name == "--discovery_time") {
      take_uint(value, "discovery time", "discovery time", UINT32_MAX);
    } else if (name == "--control_port") {
      take_uint(value, "port", "listener port", 0xFFFF);
    } else {
      state["?" + name] = value;  // converted behind the scan
    }
  }

  static bool takes_value(const std::string& name) {
    constexpr const char* others[] = {"--log_file_cnt",   "--log_file_size",   "--discovery_time",
                                      "--control_port",   "--agent_keepalive", "--broker_keepalive",
                                      "--agent_heartbeat"};
    return texts.contains(name) || std::any_of(std::begin(others), std::end(others),
                                               [&](const char* other) { return name == other; });
  }

  // 0, -1 for an unknown argument, or result_of_version.
  int scan(const std::vector<std::string>& arguments) {
    for (size_t i = 0; i < arguments.size(); ++i) {
      const std::string& name = arguments[i];
      if (switches.contains(name)) {
        const auto& [key, value] = switches.at(name);
        state[key] = value;
      } else if (name == "-v" || name == "--version") {
        printed = "Version release-3.5.9_bq917rkvn_2725daa_usi\n";
        return result_of_version;
      } else if (!takes_value(name)) {
        printed = usage();
        return -1;
      } else if (i + 1 == arguments.size()) {
        return 0;
      } else {
        take_value(name, arguments[++i]);
      }
    }
    return 0;
  }

  int check_hardware_id() {
    const auto found = state.find("hardware id");
    const bool given = found != state.end();
    if (given && found->second.size() == 13 &&
        std::all_of(found->second.begin(), found->second.end(),
                    [](char c) { return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'); })) {
      return 0;
    }
    printed = "Please specify hardware_id (by --hardware_id option) to run orvel.\n"
              "It should contain only upper latin letters and numbers and have 13 symbols\n" +
              usage();
    if (given) log += "E:Specified hardware id \"" + found->second + "\" is not correct.\n";
    return -1;
  }

  int take_keepalive(const char* option, const char* key) {
    if (!state.contains(option)) return 0;
    const std::string text = state[option];
    const naive_triple triple = read_triple(text);
    log += triple.warnings;
    if (!triple.complete) {
      log += "E:Failed to parse agent keepalive string.\n";
      return -1;
    }
    state[key] = formatted("%u %u %u", triple.values[0], triple.values[1], triple.values[2]);
    const size_t third = text.find(',', text.find(',') + 1) + 1;
    number(text.substr(third, text.find(',', third) - third));
    return 0;
  }

  int take_heartbeat() {
    if (!state.contains("?--agent_heartbeat")) return 0;
    const naive_number found = read_number(state["?--agent_heartbeat"], 10);
    if (found.value < 0 || (found.value == 0 && error == ERANGE)) {
      log += "E:Failed to parse agent heartbeat string.\n";
      return -1;
    }
    state["heartbeat"] = std::to_string(found.value);
    return 0;
  }

  int read(const std::vector<std::string>& arguments) {
    if (const int result = scan(arguments)) return result;
    if (check_hardware_id() != 0) return -1;
    if (take_keepalive("?--agent_keepalive", "agent keepalive") != 0) return -1;
    if (take_keepalive("?--broker_keepalive", "broker keepalive") != 0) return -1;
    if (take_heartbeat() != 0) return -1;
    if (state["model id"].empty()) state["model id"] = "Unknown";
    state.try_emplace("pid file", "/tmp/orvel.pid");
    state.try_emplace("watchdog pid file", "/tmp/orvel_watchdog.pid");
    return 0;
  }
};

// --- what the agent made of it

void put(naive_state* state, const char* key, const char* text) {
  if (text != nullptr) (*state)[key] = text;
}

std::string text_of(const keepalive_values& values) {
  return formatted("%u %u %u", values.time, values.probes, values.interval);
}

naive_state state_of(AgentSettings* settings) {
  naive_state state = library_paths;
  put(&state, "ca path", options.ca_path);
  put(&state, "ca file", options.ca_file);
  put(&state, "hardware id", options.hardware_id);
  put(&state, "model id", options.model_id);
  put(&state, "log file", options.log_file);
  put(&state, "connectivity log", options.connectivity_log_file);
  put(&state, "service id", settings->service_id);
  put(&state, "discovery data", settings->discovery_data);
  put(&state, "discovery id", settings->discovery_id);
  put(&state, "carrier id", c_string{copy_carrier_id(settings)}.get());
  put(&state, "pid file", settings->pid_file);
  put(&state, "watchdog pid file", settings->watchdog_pid_file);
  state["daemon"] = settings->daemon ? "1" : "0";
  state["watchdog"] = settings->watchdog ? "1" : "0";
  state["start paused"] = settings->start_paused ? "1" : "0";
  state["console"] = options.console_log ? "1" : "0";
  state["file"] = options.file_log ? "1" : "0";
  state["extra"] = options.extra_parameters ? "1" : "0";
  state["level"] = std::to_string(options.log_level);
  state["count"] = std::to_string(options.log_rotation_count);
  state["size"] = std::to_string(options.log_rotation_size);
  state["port"] = std::to_string(options.control_port);
  state["discovery time"] = std::to_string(settings->discovery_time);
  state["heartbeat"] = std::to_string(settings->agent_heartbeat);
  state["agent keepalive"] = text_of(settings->agent_keepalive);
  state["broker keepalive"] = text_of(settings->broker_keepalive);
  return state;
}

std::string text_of(const naive_state& state) {
  std::string text;
  for (const auto& [key, value] : state) {
    if (key[0] != '?') text.append(key).append(" = ").append(value).append("\n");
  }
  return text;
}

int parse_guarded(int argc, char** argv, AgentSettings* settings) {
  if (setjmp(version_exit) != 0) return result_of_version;
  errno = 0;
  return parse_args(argc, argv, settings);
}

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  for (size_t begin = 0; begin < text.size();) {
    const size_t end = std::min(text.find('\n', begin), text.size());
    lines.emplace_back(text.substr(begin, end - begin).c_str());
    begin = end + 1;
  }
  return lines;
}

// A line is logged when the level that is in force just then lets it through.
bool keeps_every_line(const std::vector<std::string>& arguments) {
  return std::none_of(arguments.begin(), arguments.end(),
                      [](const std::string& argument) { return argument.starts_with("--log_"); });
}

}  // namespace

// In the place of the process's end and of the settings library.

void exit_process(int status) {
  CHECK(status == 0);
  std::longjmp(version_exit, 1);
}

void usiSetStorageFile(const char* name) {
  library_paths["storage"] = name;
}

void usiSetProfile(const char* path) {
  library_paths["profile"] = path;
}

void usiSetConfigFile(const char* path) {
  library_paths["conf"] = path;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  begin_run();
  library_paths.clear();
  const std::vector<std::string> arguments = lines_of({reinterpret_cast<const char*>(data), size});
  naive_line expected;
  const int expected_result = expected.read(arguments);

  std::string program = "orvel";
  std::vector<std::string> copies = arguments;
  std::vector<char*> argv{program.data()};
  for (std::string& copy : copies) {
    argv.push_back(copy.data());
  }
  argv.push_back(nullptr);
  AgentSettings settings{};
  take_output();
  const int result = parse_guarded(static_cast<int>(argv.size()) - 1, argv.data(), &settings);
  CHECK(result == expected_result);
  check_same(take_output(), expected.printed);
  check_same(text_of(state_of(&settings)), text_of(expected.state));
  if (keeps_every_line(arguments)) check_same(take_story(), expected.log);
  release_settings(&settings);
  return 0;
}
