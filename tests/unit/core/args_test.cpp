#include "core/args.h"

#include "core/options.h"
#include "core/owned.h"
#include "forked.h"
#include "log_capture.h"
#include "temp_folder.h"
#include "usi.h"

#include <cerrno>
#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* good_id = "ABCDEFG123456";

constexpr const char* hint = "Please specify hardware_id (by --hardware_id option) to run orvel.\n"
                             "It should contain only upper latin letters and numbers and have 13 symbols\n";

// Written out once more, byte for byte, because people's scripts show this text.
constexpr const char* usage =
    "orvel:\t[-d|--daemon] [-c|--config_file <file name>]\n"
    "\t\t[--usi_profile <path to USI profile file>] [--usi_conf <path to USI config file>]\n"
    "\t\t[--disable_console] [--disable_log_file] [--model_id]\n"
    "\t\t[--ca_path <path to CA folder>] [--ca_file <path to cert file>]\n"
    "\t\t[--log_debug|--log_info|--log_warning|--log_error|--log_silent]\n"
    "\t\t[-w|--watchdog] [-v|--version] [--log_file <filename>] "
    "[--connectivity_log_file <filename>]\\n\t\t[-s|--service_id <service_id>] "
    "[--discovery_time <discovery time>]\n"
    "\t\t[--discovery_id <id>] [--carrier_id <id>] [--discovery_data <data>]\n"
    "\t\t[--start_paused] [--log_file_cnt <count of files in rotation>]\n"
    "\t\t[--log_file_size <max size of log file before rotation in human format: nK|nM where n in 1-9999>]\n"
    "\t\t[--pid_file <pid_file>] [--watchdog_pid_file <pid_file>]\n"
    "\t\t[--broker_keepalive <time>,<probes>,<intv>] [--agent_keepalive <time>,<probes>,<intv>]\n"
    "\t\t[--agent_heartbeat <time>] [--enable_extra_parameters_for_dal]\n"
    "\t\t--hardware_id <hardware id> [--model_id <model_id>]\n";

// One command line, read into fresh settings and options; what it printed and logged.
class ArgsTest : public testing::Test {
protected:
  ~ArgsTest() override {
    release_settings(&settings);
    options = saved;
  }

  // Reads the arguments as given.
  int parse(std::vector<std::string> arguments) {
    release_settings(&settings);
    texts = std::move(arguments);
    texts.insert(texts.begin(), "orvel");
    std::vector<char*> argv;
    for (std::string& text : texts) {
      argv.push_back(text.data());
    }
    argv.push_back(nullptr);
    log_capture log;
    testing::internal::CaptureStdout();
    errno = error_before;
    const int result = parse_args(static_cast<int>(texts.size()), argv.data(), &settings);
    got = options;
    printed = testing::internal::GetCapturedStdout();
    logged = log.text();
    return result;
  }

  // The same behind a good hardware id.
  int parse_valid(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), {"--hardware_id", good_id});
    return parse(std::move(arguments));
  }

  agent_options saved = options;
  AgentSettings settings{};
  agent_options got;  // as parse_args() left them
  int error_before = 0;
  std::vector<std::string> texts;  // what the options point into
  std::string printed;
  std::string logged;
};

TEST_F(ArgsTest, AHardwareIdAloneGivesTheDefaults) {
  EXPECT_EQ(parse_valid({}), 0);
  EXPECT_STREQ(got.hardware_id, good_id);
  EXPECT_STREQ(got.model_id, "Unknown");
  EXPECT_EQ(got.ca_path, nullptr);
  EXPECT_EQ(got.ca_file, nullptr);
  EXPECT_EQ(got.connectivity_log_file, nullptr);
  EXPECT_EQ(got.log_rotation_count, 5);
  EXPECT_EQ(got.log_rotation_size, 4194304U);
  EXPECT_EQ(saved.log_level, 5);
  EXPECT_TRUE(saved.console_log);
  EXPECT_TRUE(saved.file_log);
  EXPECT_FALSE(got.extra_parameters);
  EXPECT_EQ(got.control_port, 14369);
  EXPECT_FALSE(settings.daemon);
  EXPECT_FALSE(settings.watchdog);
  EXPECT_FALSE(settings.start_paused);
  EXPECT_STREQ(settings.pid_file, "/tmp/orvel.pid");
  EXPECT_STREQ(settings.watchdog_pid_file, "/tmp/orvel_watchdog.pid");
  EXPECT_EQ(settings.service_id, nullptr);
  EXPECT_EQ(settings.discovery_time, 0U);
  EXPECT_EQ(settings.discovery_id, nullptr);
  EXPECT_EQ(settings.discovery_data, nullptr);
  EXPECT_EQ(c_string{copy_carrier_id(&settings)}, nullptr);
  EXPECT_EQ(settings.agent_heartbeat, 0U);
  EXPECT_EQ(settings.agent_keepalive.time, 0U);
  EXPECT_EQ(settings.broker_keepalive.interval, 0U);
  EXPECT_THAT(printed, IsEmpty());
  EXPECT_THAT(logged, IsEmpty());
}

TEST_F(ArgsTest, SwitchesSetTheirFlags) {
  for (const char* name : {"-d", "--daemon"}) {
    settings.daemon = false;
    EXPECT_EQ(parse_valid({name}), 0);
    EXPECT_TRUE(settings.daemon) << name;
  }
  for (const char* name : {"-w", "--watchdog"}) {
    settings.watchdog = false;
    EXPECT_EQ(parse_valid({name}), 0);
    EXPECT_TRUE(settings.watchdog) << name;
  }
  EXPECT_EQ(parse_valid({"--start_paused", "--disable_console", "--disable_log_file",
                         "--enable_extra_parameters_for_dal"}),
            0);
  EXPECT_TRUE(settings.start_paused);
  EXPECT_FALSE(got.console_log);
  EXPECT_FALSE(got.file_log);
  EXPECT_TRUE(got.extra_parameters);
}

TEST_F(ArgsTest, LevelOptionsSetTheLevel) {
  struct {
    const char* name;
    int level;
  } const cases[] = {
      {"--log_debug", 1}, {"--log_info", 2}, {"--log_warning", 3}, {"--log_error", 4}, {"--log_silent", 5}};
  for (const auto& c : cases) {
    EXPECT_EQ(parse_valid({c.name}), 0);
    EXPECT_EQ(got.log_level, c.level) << c.name;
  }
}

TEST_F(ArgsTest, GlobalTextsPointIntoTheArguments) {
  EXPECT_EQ(parse_valid({"--ca_path", "/ca", "--ca_file", "/ca.pem", "--model_id", "M1", "--log_file",
                         "/l.log", "--connectivity_log_file", "/c.log"}),
            0);
  EXPECT_STREQ(got.ca_path, "/ca");
  EXPECT_STREQ(got.ca_file, "/ca.pem");
  EXPECT_STREQ(got.model_id, "M1");
  EXPECT_STREQ(got.log_file, "/l.log");
  EXPECT_STREQ(got.connectivity_log_file, "/c.log");
  EXPECT_EQ(got.hardware_id, texts[2].data());
  EXPECT_EQ(got.connectivity_log_file, texts[12].data());
}

TEST_F(ArgsTest, TextsOfTheRecordAreCopies) {
  EXPECT_EQ(parse_valid({"--service_id", "s1", "--discovery_data", "data", "--discovery_id", "id",
                         "--carrier_id", "carrier", "--pid_file", "/p", "--watchdog_pid_file", "/w"}),
            0);
  for (std::string& text : texts) {
    text.assign(text.size(), '#');
  }
  EXPECT_STREQ(settings.service_id, "s1");
  EXPECT_STREQ(settings.discovery_data, "data");
  EXPECT_STREQ(settings.discovery_id, "id");
  EXPECT_STREQ(c_string{copy_carrier_id(&settings)}.get(), "carrier");
  EXPECT_STREQ(settings.pid_file, "/p");
  EXPECT_STREQ(settings.watchdog_pid_file, "/w");
  EXPECT_EQ(parse_valid({"-s", "short"}), 0);
  EXPECT_STREQ(settings.service_id, "short");
}

TEST_F(ArgsTest, TheLastOfARepeatedOptionCounts) {
  EXPECT_EQ(parse_valid({"-s", "one", "-s", "two", "--carrier_id", "a", "--carrier_id", "b", "--model_id",
                         "m", "--model_id", "n", "--agent_heartbeat", "-3", "--agent_heartbeat", "4"}),
            0);
  EXPECT_STREQ(settings.service_id, "two");
  EXPECT_STREQ(c_string{copy_carrier_id(&settings)}.get(), "b");
  EXPECT_STREQ(got.model_id, "n");
  EXPECT_EQ(settings.agent_heartbeat, 4U);
}

TEST_F(ArgsTest, AValueIsTakenWhateverItLooksLike) {
  EXPECT_EQ(parse_valid({"--service_id", "--daemon", "--model_id", "-v"}), 0);
  EXPECT_STREQ(settings.service_id, "--daemon");
  EXPECT_STREQ(got.model_id, "-v");
  EXPECT_FALSE(settings.daemon);
}

TEST_F(ArgsTest, AMissingLastValueEndsTheScanWithoutAWord) {
  for (const char* name : {"-c",
                           "--config_file",
                           "--usi_profile",
                           "--usi_conf",
                           "--ca_path",
                           "--ca_file",
                           "--hardware_id",
                           "--model_id",
                           "--log_file",
                           "--connectivity_log_file",
                           "--log_file_cnt",
                           "--log_file_size",
                           "-s",
                           "--service_id",
                           "--discovery_data",
                           "--discovery_time",
                           "--discovery_id",
                           "--carrier_id",
                           "--pid_file",
                           "--watchdog_pid_file",
                           "--agent_heartbeat",
                           "--broker_keepalive",
                           "--agent_keepalive",
                           "--control_port"}) {
    EXPECT_EQ(parse_valid({name}), 0) << name;
    EXPECT_THAT(printed + logged, IsEmpty()) << name;
    EXPECT_EQ(got.log_rotation_size, 4194304U) << name;
    EXPECT_EQ(got.log_rotation_count, 5) << name;
  }
}

TEST_F(ArgsTest, AnUnknownArgumentPrintsTheUsage) {
  for (const char* argument :
       {"word", "--nothing", "-x", "-", "--", "", "-dd", "--daemonx", "-D", "--daemo"}) {
    EXPECT_EQ(parse_valid({argument}), -1) << argument;
    EXPECT_EQ(printed, usage) << argument;
    EXPECT_THAT(logged, IsEmpty()) << argument;
  }
}

TEST_F(ArgsTest, AnUnknownArgumentStopsTheScanBehindWhatWasRead) {
  EXPECT_EQ(parse({"--daemon", "word", "--watchdog"}), -1);
  EXPECT_TRUE(settings.daemon);
  EXPECT_FALSE(settings.watchdog);
}

TEST_F(ArgsTest, AWrongHardwareIdIsExplainedAndLogged) {
  for (const char* id : {"ABCDEFG12345", "ABCDEFG1234567", "aBCDEFG123456", "ABCDEFG12345-", "ABCDEFG 23456",
                         "ABCDEFG12345\xC4", ""}) {
    EXPECT_EQ(parse({"--hardware_id", id}), -1) << id;
    EXPECT_EQ(printed, std::string{hint} + usage) << id;
    EXPECT_THAT(logged,
                HasSubstr(std::string{"WARNING: Specified hardware id \""} + id + "\" is not correct.\n"))
        << id;
    EXPECT_THAT(logged, testing::StartsWith("args: ")) << id;
  }
}

TEST_F(ArgsTest, NoHardwareIdIsExplainedButNotLogged) {
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{}, {"--daemon"}, {"--daemon", "--hardware_id"}}) {
    EXPECT_EQ(parse(arguments), -1);
    EXPECT_EQ(printed, std::string{hint} + usage);
    EXPECT_THAT(logged, IsEmpty());
  }
}

TEST_F(ArgsTest, TheHardwareIdIsCheckedBeforeEverythingElse) {
  EXPECT_EQ(parse({"--agent_keepalive", "x", "--agent_heartbeat", "-1"}), -1);
  EXPECT_THAT(logged, IsEmpty());
  EXPECT_EQ(settings.pid_file, nullptr);
}

TEST_F(ArgsTest, AnEmptyModelIdBecomesUnknown) {
  EXPECT_EQ(parse_valid({"--model_id", ""}), 0);
  EXPECT_STREQ(got.model_id, "Unknown");
}

TEST_F(ArgsTest, LogFileSizes) {
  struct {
    const char* text;
    uint32_t bytes;
  } const cases[] = {
      {"10K", 10240},       {"10k", 10240},   {"2m", 2097152},       {"2M", 2097152},
      {"0K", 1048576},      {"-5M", 1048576}, {"10G", 1048576},      {"K", 1048576},
      {"100", 1048576},     {"", 1048576},    {"9999M", 1894776832}, {"4096M", 0},
      {"5000M", 947912704}, {"x7K", 1048576}, {"7xK", 7168},         {"99999999999K", 4294966272},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(parse_valid({"--log_file_size", c.text}), 0);
    EXPECT_EQ(got.log_rotation_size, c.bytes) << c.text;
    EXPECT_THAT(logged, IsEmpty()) << c.text;
  }
}

TEST_F(ArgsTest, LogFileCountsAreTakenUnchecked) {
  struct {
    const char* text;
    int count;
  } const cases[] = {{"7", 7}, {"0", 0}, {"-2", -2}, {"x", 0}, {"99999999999", 2147483647}};
  for (const auto& c : cases) {
    EXPECT_EQ(parse_valid({"--log_file_cnt", c.text}), 0);
    EXPECT_EQ(got.log_rotation_count, c.count) << c.text;
  }
}

TEST_F(ArgsTest, DiscoveryTimes) {
  EXPECT_EQ(parse_valid({"--discovery_time", "90"}), 0);
  EXPECT_EQ(settings.discovery_time, 90U);
  EXPECT_EQ(parse_valid({"--discovery_time", "60", "--discovery_time", "-1", "--daemon"}), 0);
  EXPECT_EQ(settings.discovery_time, 60U);
  EXPECT_TRUE(settings.daemon);
  EXPECT_THAT(logged,
              testing::MatchesRegex("args: [0-9]+: WARNING: incorrect value for discovery time: '-1'\n"));
}

TEST_F(ArgsTest, ControlPorts) {
  struct {
    const char* text;
    uint16_t port;
  } const cases[] = {{"0", 0},     {"8080", 8080}, {"65535", 65535},      {"65536", 0},
                     {"65537", 1}, {"x", 0},       {"99999999999", 65535}};
  for (const auto& c : cases) {
    EXPECT_EQ(parse_valid({"--control_port", c.text}), 0);
    EXPECT_EQ(got.control_port, c.port) << c.text;
    EXPECT_THAT(logged, IsEmpty()) << c.text;
  }
}

TEST_F(ArgsTest, ANegativeControlPortWarnsAndKeepsThePort) {
  options.control_port = 14369;
  EXPECT_EQ(parse_valid({"--control_port", "-1", "--daemon"}), 0);
  EXPECT_EQ(got.control_port, 14369);
  EXPECT_TRUE(settings.daemon);
  EXPECT_THAT(logged, HasSubstr("WARNING: incorrect value for listener port: '-1'\n"));
}

TEST_F(ArgsTest, KeepalivesGoToTheirTriples) {
  EXPECT_EQ(parse_valid({"--agent_keepalive", "60,5,10,99", "--broker_keepalive", "1,2,3"}), 0);
  EXPECT_EQ(settings.agent_keepalive.time, 60U);
  EXPECT_EQ(settings.agent_keepalive.probes, 5U);
  EXPECT_EQ(settings.agent_keepalive.interval, 10U);
  EXPECT_EQ(settings.broker_keepalive.time, 1U);
  EXPECT_EQ(settings.broker_keepalive.probes, 2U);
  EXPECT_EQ(settings.broker_keepalive.interval, 3U);
}

TEST_F(ArgsTest, BothBadKeepalivesFailWithTheAgentsText) {
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"--agent_keepalive", "60,5"}, {"--broker_keepalive", "x"}}) {
    EXPECT_EQ(parse_valid(arguments), -1);
    EXPECT_THAT(logged,
                testing::MatchesRegex("args: [0-9]+: WARNING: Failed to parse agent keepalive string.\n"));
    EXPECT_THAT(printed, IsEmpty());
  }
}

TEST_F(ArgsTest, ANegativeKeepaliveFieldOnlyWarns) {
  EXPECT_EQ(parse_valid({"--agent_keepalive", "60,-1,10"}), 0);
  EXPECT_EQ(settings.agent_keepalive.time, 60U);
  EXPECT_EQ(settings.agent_keepalive.probes, 0U);
  EXPECT_EQ(settings.agent_keepalive.interval, 10U);
  EXPECT_THAT(logged, HasSubstr("Cannot convert value -1 to uint32_t - got value -1\n"));
}

TEST_F(ArgsTest, AgentHeartbeats) {
  struct {
    const char* text;
    uint32_t seconds;
  } const cases[] = {{"0", 0}, {"30", 30}, {"x", 0}, {"99999999999", 2147483647}};
  for (const auto& c : cases) {
    EXPECT_EQ(parse_valid({"--agent_heartbeat", c.text}), 0) << c.text;
    EXPECT_EQ(settings.agent_heartbeat, c.seconds) << c.text;
  }
  EXPECT_EQ(parse_valid({"--agent_heartbeat", "-3"}), -1);
  EXPECT_THAT(logged,
              testing::MatchesRegex("args: [0-9]+: WARNING: Failed to parse agent heartbeat string.\n"));
}

TEST_F(ArgsTest, AnEarlierErrorNumberCountsAgainstAHeartbeatOfZeroOnly) {
  struct {
    const char* text;
    int error;
    int result;
  } const cases[] = {{"0", EINVAL, -1}, {"0", ERANGE, -1}, {"0", ENOENT, 0}, {"7", EINVAL, 0}};
  for (const auto& c : cases) {
    error_before = c.error;
    EXPECT_EQ(parse_valid({"--agent_heartbeat", c.text}), c.result) << c.error << c.text;
  }
  error_before = 0;
  EXPECT_EQ(parse_valid({"--log_file_cnt", "99999999999", "--agent_heartbeat", "0"}), -1);
  EXPECT_EQ(parse_valid({"--log_file_cnt", "99999999999", "--log_file_cnt", "1", "--agent_heartbeat", "0"}),
            0);
}

// Runs in a process of its own: the version option ends it, and the settings library keeps its files for good.
child_outcome parse_in_child(std::vector<std::string> arguments) {
  return run_in_child([&] {
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (std::string& text : arguments) {
      argv.push_back(text.data());
    }
    argv.push_back(nullptr);
    static AgentSettings settings{};
    const int result = parse_args(static_cast<int>(arguments.size()), argv.data(), &settings);
    std::printf("profile %s\nconfig %s\n", usiGetCurrentProfile(), usiGetCurrentConfig());
    char* value = nullptr;
    usiGet("q_name", &value, 100);
    std::printf("value %s\n", value != nullptr ? value : "none");
    std::free(value);
    release_settings(&settings);
    return result == 0 ? 7 : 8;
  });
}

TEST(VersionTest, IsPrintedAndEndsTheProcessWithoutAHardwareId) {
  for (const char* name : {"-v", "--version"}) {
    const child_outcome child = parse_in_child({"orvel", name, "unknown words"});
    EXPECT_EQ(child.status, 0) << name;
    EXPECT_EQ(child.output, "Version release-3.5.9_bq917rkvn_2725daa_usi\n") << name;
  }
}

TEST(VersionTest, OptionsBeforeItHaveTakenEffect) {
  const temp_folder folder;
  write_text_file(folder / "settings", "q_name=chosen\n");
  const child_outcome child = run_in_child([&] {
    std::string path = folder / "settings";
    char name[] = "orvel";
    char storage[] = "-c";
    char version[] = "--version";
    char* argv[] = {name, storage, path.data(), version, nullptr};
    std::atexit([] {
      char* value = nullptr;
      usiGet("q_name", &value, 100);
      std::printf("stored %s\n", value != nullptr ? value : "none");
      std::free(value);
    });
    AgentSettings settings{};
    return parse_args(4, argv, &settings);
  });
  EXPECT_EQ(child.status, 0);
  EXPECT_EQ(child.output, "Version release-3.5.9_bq917rkvn_2725daa_usi\nstored chosen\n");
}

TEST(SettingsLibraryOptionsTest, ChooseTheFilesOfTheLibrary) {
  const temp_folder folder;
  write_text_file(folder / "settings", "q_name=from storage\n");
  for (const char* name : {"-c", "--config_file"}) {
    const child_outcome child =
        parse_in_child({"orvel", "--hardware_id", good_id, name, folder / "settings", "--usi_profile",
                        folder / "profile", "--usi_conf", folder / "conf"});
    EXPECT_EQ(child.status, 7);
    EXPECT_EQ(child.output,
              "profile " + folder / "profile" + "\nconfig " + folder / "conf" + "\nvalue from storage\n")
        << name;
  }
}

TEST(UsageTest, CarriesTheNameOfTheProgram) {
  testing::internal::CaptureStdout();
  print_usage("/sbin/other");
  EXPECT_THAT(testing::internal::GetCapturedStdout(), testing::StartsWith("/sbin/other:\t[-d|--daemon]"));
}

}  // namespace
