#include "core/args.h"

#include "core/exit_process.h"
#include "core/log.h"
#include "core/numbers.h"
#include "core/options.h"
#include "core/owned.h"
#include "core/version.h"
#include "usi.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

constexpr char log_source[] = "args";

constexpr size_t hardware_id_length = 13;

// What the scan fills. The three texts are converted once the hardware id has been found good.
struct command_line {
  AgentSettings* settings;
  const char* agent_keepalive;
  const char* broker_keepalive;
  const char* agent_heartbeat;
};

void replace_string(char*& field, const char* text) {
  release_string(field);
  field = must_copy(text, ALLOCATION("strdup().\n", 1));
}

int32_t to_number(const char* text) {
  errno = 0;
  return text_to_int32(text, nullptr, 10);
}

// "<number>K" or "<number>M" in bytes; anything else is 1 MiB. Large numbers wrap at 32 bits, as intended.
uint32_t parse_size(const char* text) {
  constexpr uint32_t otherwise = 1048576;
  if (*text == '\0') return otherwise;
  const size_t unit = std::strlen(text) - 1;
  const c_string number_text{strndup(text, unit)};
  if (number_text == nullptr) return otherwise;
  const int32_t number = to_number(number_text.get());
  if (number <= 0) return otherwise;
  switch (text[unit]) {
  case 'k':
  case 'K':
    return static_cast<uint32_t>(number) << 10;
  case 'm':
  case 'M':
    return static_cast<uint32_t>(number) << 20;
  default:
    return otherwise;
  }
}

void set_discovery_time(command_line* line, const char* text) {
  if (parse_uint(text, &line->settings->discovery_time) == 0) return;
  log_warning("incorrect value for discovery time: '%s'\n", text);
}

void set_control_port(const char* text) {
  uint32_t port = 0;
  if (parse_uint(text, &port) != 0) {
    log_warning("incorrect value for listener port: '%s'\n", text);
    return;
  }
  options.control_port = static_cast<uint16_t>(port);  // the low 16 bits of a larger number, as intended
}

[[noreturn]] void print_version() {
  std::printf("Version %s%s\n", version_string, version_suffix);
  exit_process(0);
}

struct option {
  const char* short_name;  ///< or null
  const char* long_name;
  bool takes_value;
  void (*apply)(command_line* line, const char* value);  ///< `value` is null without takes_value
};

constexpr option option_table[] = {
    {"-d", "--daemon", false, [](command_line* line, const char*) { line->settings->daemon = true; }},
    {"-c", "--config_file", true, [](command_line*, const char* value) { usiSetStorageFile(value); }},
    {nullptr, "--usi_profile", true, [](command_line*, const char* value) { usiSetProfile(value); }},
    {nullptr, "--usi_conf", true, [](command_line*, const char* value) { usiSetConfigFile(value); }},
    {"-w", "--watchdog", false, [](command_line* line, const char*) { line->settings->watchdog = true; }},
    {"-v", "--version", false, [](command_line*, const char*) { print_version(); }},
    {nullptr, "--ca_path", true, [](command_line*, const char* value) { options.ca_path = value; }},
    {nullptr, "--ca_file", true, [](command_line*, const char* value) { options.ca_file = value; }},
    {nullptr, "--hardware_id", true, [](command_line*, const char* value) { options.hardware_id = value; }},
    {nullptr, "--model_id", true, [](command_line*, const char* value) { options.model_id = value; }},
    {nullptr, "--log_file", true, [](command_line*, const char* value) { options.log_file = value; }},
    {nullptr, "--connectivity_log_file", true,
     [](command_line*, const char* value) { options.connectivity_log_file = value; }},
    {nullptr, "--log_file_cnt", true,
     [](command_line*, const char* value) { options.log_rotation_count = to_number(value); }},
    {nullptr, "--log_file_size", true,
     [](command_line*, const char* value) { options.log_rotation_size = parse_size(value); }},
    {"-s", "--service_id", true,
     [](command_line* line, const char* value) { replace_string(line->settings->service_id, value); }},
    {nullptr, "--discovery_data", true,
     [](command_line* line, const char* value) { replace_string(line->settings->discovery_data, value); }},
    {nullptr, "--discovery_time", true, set_discovery_time},
    {nullptr, "--discovery_id", true,
     [](command_line* line, const char* value) { replace_string(line->settings->discovery_id, value); }},
    {nullptr, "--carrier_id", true,
     [](command_line* line, const char* value) {
       replace_carrier_id(line->settings, must_copy(value, ALLOCATION("strdup().\n", 1)));
     }},
    {nullptr, "--pid_file", true,
     [](command_line* line, const char* value) { replace_string(line->settings->pid_file, value); }},
    {nullptr, "--watchdog_pid_file", true,
     [](command_line* line, const char* value) { replace_string(line->settings->watchdog_pid_file, value); }},
    {nullptr, "--agent_heartbeat", true,
     [](command_line* line, const char* value) { line->agent_heartbeat = value; }},
    {nullptr, "--broker_keepalive", true,
     [](command_line* line, const char* value) { line->broker_keepalive = value; }},
    {nullptr, "--agent_keepalive", true,
     [](command_line* line, const char* value) { line->agent_keepalive = value; }},
    {nullptr, "--control_port", true, [](command_line*, const char* value) { set_control_port(value); }},
    {nullptr, "--disable_console", false, [](command_line*, const char*) { options.console_log = false; }},
    {nullptr, "--disable_log_file", false, [](command_line*, const char*) { options.file_log = false; }},
    {nullptr, "--enable_extra_parameters_for_dal", false,
     [](command_line*, const char*) { options.extra_parameters = true; }},
    {nullptr, "--log_debug", false, [](command_line*, const char*) { options.log_level = level_debug; }},
    {nullptr, "--log_info", false, [](command_line*, const char*) { options.log_level = level_info; }},
    {nullptr, "--log_warning", false, [](command_line*, const char*) { options.log_level = level_warning; }},
    {nullptr, "--log_error", false, [](command_line*, const char*) { options.log_level = level_error; }},
    {nullptr, "--log_silent", false, [](command_line*, const char*) { options.log_level = level_silent; }},
    {nullptr, "--start_paused", false,
     [](command_line* line, const char*) { line->settings->start_paused = true; }},
};

const option* find_option(const char* argument) {
  for (const option& row : option_table) {
    if (row.short_name != nullptr && std::strcmp(argument, row.short_name) == 0) return &row;
    if (std::strcmp(argument, row.long_name) == 0) return &row;
  }
  return nullptr;
}

// False at an argument that is no option. A missing last value ends the scan without a word, as intended.
bool scan(int argc, char** argv, command_line* line) {
  for (int i = 1; i < argc; ++i) {
    const option* found = find_option(argv[i]);
    if (found == nullptr) return false;
    if (found->takes_value && ++i == argc) return true;
    found->apply(line, found->takes_value ? argv[i] : nullptr);
  }
  return true;
}

bool is_hardware_id(const char* text) {
  if (text == nullptr || std::strlen(text) != hardware_id_length) return false;
  return std::strspn(text, "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789") == hardware_id_length;
}

int check_hardware_id(const char* program) {
  if (is_hardware_id(options.hardware_id)) return 0;
  std::printf(
      "Please specify hardware_id (by --hardware_id option) to run orvel.\nIt should contain only upper latin letters and numbers and have 13 symbols\n");
  print_usage(program);
  if (options.hardware_id != nullptr) {
    log_error("Specified hardware id \"%s\" is not correct.\n", options.hardware_id);
  }
  return -1;
}

// The broker's option fails with the agent's text, which is intended.
int set_keepalive(const char* text, keepalive_values* values) {
  if (text == nullptr) return 0;
  if (parse_keepalive(text, &values->time, &values->probes, &values->interval) == 0) return 0;
  log_error("Failed to parse agent keepalive string.\n");
  return -1;
}

// An errno that something earlier left counts against a heartbeat of 0, as intended.
int set_heartbeat(const char* text, uint32_t* heartbeat) {
  if (text == nullptr) return 0;
  const int32_t value = text_to_int32(text, nullptr, 10);
  if (value < 0 || (value == 0 && (errno == EINVAL || errno == ERANGE))) {
    log_error("Failed to parse agent heartbeat string.\n");
    return -1;
  }
  *heartbeat = static_cast<uint32_t>(value);
  return 0;
}

}  // namespace

int parse_args(int argc, char** argv, AgentSettings* settings) {
  command_line line{settings, nullptr, nullptr, nullptr};
  if (!scan(argc, argv, &line)) {
    print_usage(argv[0]);
    return -1;
  }
  if (check_hardware_id(argv[0]) != 0) return -1;
  if (set_keepalive(line.agent_keepalive, &settings->agent_keepalive) != 0) return -1;
  if (set_keepalive(line.broker_keepalive, &settings->broker_keepalive) != 0) return -1;
  if (set_heartbeat(line.agent_heartbeat, &settings->agent_heartbeat) != 0) return -1;

  if (options.model_id == nullptr || *options.model_id == '\0') options.model_id = "Unknown";
  if (settings->pid_file == nullptr) replace_string(settings->pid_file, "/tmp/orvel.pid");
  if (settings->watchdog_pid_file == nullptr) {
    replace_string(settings->watchdog_pid_file, "/tmp/orvel_watchdog.pid");
  }
  return 0;
}

// The backslash and "n" in the sixth line are meant to be printed as these two characters.
void print_usage(const char* program) {
  std::printf(
      "%s:\t[-d|--daemon] [-c|--config_file <file name>]\n"
      "\t\t[--usi_profile <path to USI profile file>] [--usi_conf <path to USI config file>]\n"
      "\t\t[--disable_console] [--disable_log_file] [--model_id]\n"
      "\t\t[--ca_path <path to CA folder>] [--ca_file <path to cert file>]\n"
      "\t\t[--log_debug|--log_info|--log_warning|--log_error|--log_silent]\n"
      "\t\t[-w|--watchdog] [-v|--version] [--log_file <filename>] [--connectivity_log_file <filename>]\\n\t\t[-s|--service_id <service_id>] [--discovery_time <discovery time>]\n"
      "\t\t[--discovery_id <id>] [--carrier_id <id>] [--discovery_data <data>]\n"
      "\t\t[--start_paused] [--log_file_cnt <count of files in rotation>]\n"
      "\t\t[--log_file_size <max size of log file before rotation in human format: nK|nM where n in 1-9999>]\n"
      "\t\t[--pid_file <pid_file>] [--watchdog_pid_file <pid_file>]\n"
      "\t\t[--broker_keepalive <time>,<probes>,<intv>] [--agent_keepalive <time>,<probes>,<intv>]\n"
      "\t\t[--agent_heartbeat <time>] [--enable_extra_parameters_for_dal]\n"
      "\t\t--hardware_id <hardware id> [--model_id <model_id>]\n",
      program);
}
