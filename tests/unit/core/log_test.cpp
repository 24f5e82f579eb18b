#include "core/log.h"

#include "core/options.h"
#include "core/owned.h"
#include "descriptors.h"
#include "forked.h"
#include "interrupted_call.h"
#include "process_limits.h"
#include "sanitizers.h"
#include "temp_folder.h"
#include "waiting.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <iterator>
#include <sched.h>
#include <string>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using testing::EndsWith;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::StartsWith;

#define STAMP "[0-9]+-[0-9][0-9]-[0-9][0-9] [0-9][0-9]:[0-9][0-9]:[0-9][0-9]"

constexpr const char* failure = "Log rotation function failed\n";

// Logs to files in a folder of its own, level DEBUG, without a console.
class LogTest : public testing::Test {
protected:
  LogTest() {
    options.log_level = level_debug;
    options.console_log = false;
    options.file_log = true;
    options.log_file = file.c_str();
    options.connectivity_log_file = nullptr;
  }
  ~LogTest() override { options = saved; }

  // Standard error of one message.
  static std::string console(int level, const std::string& text) {
    testing::internal::CaptureStderr();
    log_write(level, "module", 42, "%s", text.c_str());
    return testing::internal::GetCapturedStderr();
  }

  agent_options saved = options;
  temp_folder folder;
  std::string file = folder / "agent.log";
  std::string connectivity_file = folder / "connectivity.log";
};

TEST_F(LogTest, ConsoleLinesCarrySourceLineTagAndMessage) {
  options.console_log = true;
  EXPECT_EQ(console(level_debug, "one 1\n"), "module: 42:   DEBUG: one 1\n");
  EXPECT_EQ(console(level_info, "two\n"), "module: 42:    INFO: two\n");
  EXPECT_EQ(console(level_warning, "three\n"), "module: 42: WARNING: three\n");
}

TEST_F(LogTest, ErrorsCarryTheWarningTagOnBothOutputs) {
  options.console_log = true;
  for (const int level : {4, 5, 7, 8, 100}) {
    EXPECT_EQ(console(level, "message\n"), "module: 42: WARNING: message\n") << level;
    EXPECT_THAT(read_text_file(file), EndsWith("\tWARNING: message\n")) << level;
  }
}

TEST_F(LogTest, FileLinesCarryTimeProcessSourceLineTagAndMessage) {
  EXPECT_THAT(console(level_info, "a text\n"), IsEmpty());
  EXPECT_THAT(read_text_file(file), MatchesRegex(STAMP " \\([0-9]+\\):module:42\t   INFO: a text\n"));
  EXPECT_THAT(read_text_file(file), testing::HasSubstr(" (" + std::to_string(getpid()) + "):"));
}

TEST_F(LogTest, ALineInTheNameOfAnotherProcessCarriesItsId) {
  log_write_as(4711, level_error, "module", 42, "a %s\n", "text");
  EXPECT_THAT(read_text_file(file), MatchesRegex(STAMP " \\(4711\\):module:42\tWARNING: a text\n"));
}

TEST_F(LogTest, TheTimeIsLocal) {
  const char* zone = std::getenv("TZ");
  const std::string before = zone != nullptr ? zone : "";
  setenv("TZ", "XXX-14", 1);
  tzset();
  const auto hour_now = [] {
    char text[32];
    tm local{};
    const time_t now = std::time(nullptr) + 14 * 3600L;
    gmtime_r(&now, &local);
    std::strftime(text, sizeof text, "%Y-%m-%d %H:", &local);
    return std::string{text};
  };
  // Lines of the same second share their stamp: the zone of the tests before this one may still show in the first.
  EXPECT_TRUE(eventually([&] {
    const std::string earliest = hour_now();
    std::filesystem::remove(file);
    log_write(level_info, "module", 1, "x\n");
    const std::string line = read_text_file(file);
    return line.starts_with(earliest) || line.starts_with(hour_now());
  }));
  zone != nullptr ? setenv("TZ", before.c_str(), 1) : unsetenv("TZ");
  tzset();
}

TEST_F(LogTest, TheTimeGoesOn) {
  const auto stamp_of_a_line = [&] {
    std::filesystem::remove(file);
    log_write(level_info, "module", 1, "x\n");
    return read_text_file(file).substr(0, std::string{"2000-01-01 00:00:00"}.size());
  };
  const std::string first = stamp_of_a_line();
  EXPECT_TRUE(eventually([&] { return stamp_of_a_line() != first; })) << first;
}

TEST_F(LogTest, AForkedProcessLogsItsOwnId) {
  log_write(level_info, "module", 1, "parent\n");
  const child_outcome child = run_in_child([&] {
    log_after_fork();
    log_write(level_info, "module", 2, "child\n");
    return read_text_file(file).find(" (" + std::to_string(getpid()) + "):module:2") != std::string::npos ? 0
                                                                                                          : 1;
  });
  EXPECT_EQ(child.status, 0);
}

TEST_F(LogTest, TheThresholdFilters) {
  options.console_log = true;
  for (int threshold = -1; threshold <= 7; ++threshold) {
    options.log_level = threshold;
    for (int level = -1; level <= 8; ++level) {
      const bool expected = level == 6 || (level >= 1 && level >= threshold);
      EXPECT_EQ(!console(level, "x\n").empty(), expected) << level << " at " << threshold;
      EXPECT_EQ(std::filesystem::remove(file), expected) << level << " at " << threshold;
      EXPECT_EQ(log_passes(level), expected);
    }
  }
}

TEST_F(LogTest, SilentLetsConnectivityEventsThroughOnly) {
  options.log_level = agent_options{}.log_level;
  options.console_log = true;
  for (int level = 1; level <= 4; ++level) {
    EXPECT_THAT(console(level, "x\n"), IsEmpty());
  }
  EXPECT_EQ(console(level_status, "connected\n"), "module: 42:   ERROR: connected\n");
  EXPECT_THAT(read_text_file(file), MatchesRegex(STAMP " \\([0-9]+\\):module:42\t: connected\n"));
}

TEST_F(LogTest, FilteredCallsDontEvaluateTheirArguments) {
  constexpr char log_source[] = "module";
  int evaluated = 0;
  const auto count = [&] { return ++evaluated; };
  options.log_level = level_silent;
  log_debug("%d\n", count());
  log_error("%d\n", count());
  EXPECT_EQ(evaluated, 0);
  options.log_level = level_error;
  log_warning("%d\n", count());
  log_error("%d\n", count());
  EXPECT_EQ(evaluated, 1);
  const int line = __LINE__ - 2;
  EXPECT_THAT(read_text_file(file), EndsWith("):module:" + std::to_string(line) + "\tWARNING: 1\n"));
}

TEST_F(LogTest, ConnectivityEventsGoToTheirFileWithAnSOrAnE) {
  options.connectivity_log_file = connectivity_file.c_str();
  options.console_log = true;
  struct {
    const char* message;
    const char* tag;
  } const cases[] = {
      {"connected to broker\n", "S"},
      {"disconnected from broker\n", "S"},
      {"connected", "S"},
      {"disconnected", "S"},
      {"connecte\n", "E"},
      {"disconnecte\n", "E"},
      {"Connected\n", "E"},
      {" connected\n", "E"},
      {"refused\n", "E"},
      {"", "E"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(console(level_status, c.message), std::string{"module: 42:   ERROR: "} + c.message);
    EXPECT_THAT(read_text_file(connectivity_file),
                MatchesRegex(STAMP " " + std::string{c.tag} + ": " + c.message));
    std::filesystem::remove(connectivity_file);
  }
  EXPECT_FALSE(std::filesystem::exists(file));
}

TEST_F(LogTest, OtherLevelsStayOutOfTheConnectivityLog) {
  options.connectivity_log_file = connectivity_file.c_str();
  log_write(level_error, "module", 1, "connected\n");
  EXPECT_FALSE(std::filesystem::exists(connectivity_file));
  EXPECT_THAT(read_text_file(file), EndsWith("WARNING: connected\n"));
}

TEST_F(LogTest, FlagsSwitchTheOutputs) {
  options.file_log = false;
  EXPECT_THAT(console(level_error, "x\n"), IsEmpty());
  options.console_log = true;
  EXPECT_EQ(console(level_error, "x\n"), "module: 42: WARNING: x\n");
  EXPECT_FALSE(std::filesystem::exists(file));
}

TEST_F(LogTest, WithoutAFileNameNothingIsWrittenAndNothingIsReported) {
  for (const char* name : {static_cast<const char*>(nullptr), ""}) {
    options.log_file = name;
    EXPECT_THAT(console(level_error, "x\n"), IsEmpty());
  }
  options.log_file = file.c_str();
  options.connectivity_log_file = "";
  EXPECT_THAT(console(level_status, "x\n"), IsEmpty());
  EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

TEST_F(LogTest, LongMessagesArriveWhole) {
  options.console_log = true;
  for (const size_t length : {900U, 1022U, 1023U, 1024U, 1025U, 5000U, 100'000U}) {
    const std::string text(length, 'x');
    EXPECT_EQ(console(level_info, text + "\n"), "module: 42:    INFO: " + text + "\n");
    EXPECT_THAT(read_text_file(file), EndsWith("\t   INFO: " + text + "\n")) << length;
  }
}

TEST_F(LogTest, LinesAreAppended) {
  write_text_file(file, "before\n");
  log_write(level_info, "module", 1, "one\n");
  log_write(level_info, "module", 1, "two\n");
  EXPECT_THAT(read_text_file(file), MatchesRegex("before\n.*: one\n.*: two\n"));
}

TEST_F(LogTest, KeepsTheErrorNumber) {
  for (const char* name : {file.c_str(), "/nowhere/agent.log"}) {
    options.log_file = name;
    testing::internal::CaptureStderr();
    errno = EXDEV;
    log_write(level_error, "module", 1, "x\n");
    EXPECT_EQ(errno, EXDEV) << name;
    testing::internal::GetCapturedStderr();
  }
}

TEST_F(LogTest, AFolderThatVanishesCostsTheLineAndSaysSo) {
  const std::string inner = folder / "logs";
  std::filesystem::create_directory(inner);
  const std::string name = inner + "/agent.log";
  options.log_file = name.c_str();
  EXPECT_THAT(console(level_info, "one\n"), IsEmpty());
  std::filesystem::remove_all(inner);
  EXPECT_EQ(console(level_info, "two\n"),
            std::string{"log_rotation_fwrite(): No such file or directory\n"} + failure);
  std::filesystem::create_directory(inner);
  EXPECT_THAT(console(level_info, "three\n"), IsEmpty());
  EXPECT_THAT(read_text_file(name), MatchesRegex(STAMP "[^\n]*: three\n"));
}

TEST_F(LogTest, WhatCantBeOpenedIsAFailureBehindTheConsoleLine) {
  options.console_log = true;
  struct {
    std::string name;
    const char* reason;
  } const cases[] = {{folder.path(), "Is a directory"},
                     {file + "/x", "No such file or directory"},
                     {std::string(5000, 'n'), "File name too long"}};
  for (const auto& c : cases) {
    options.log_file = c.name.c_str();
    EXPECT_EQ(console(level_info, "x\n"),
              "module: 42:    INFO: x\nlog_rotation_fwrite(): " + std::string{c.reason} + "\n" + failure);
  }
}

TEST_F(LogTest, AWriteThatFailsIsReported) {
  options.log_file = "/dev/full";
  const agent_options chosen = options;
  // A full disk is waited for, once for all lines; a process of its own keeps that from the other tests.
  const child_outcome child = run_in_child([&] {
    options = chosen;
    for (int i = 0; i < 50; ++i) {
      log_write(level_info, "module", 1, "x\n");
    }
    return 0;
  });
  std::string expected;
  for (int i = 0; i < 50; ++i) {
    expected += std::string{"log_rotation_fwrite(): No space left on device\n"} + failure;
  }
  EXPECT_EQ(child.status, 0);
  EXPECT_EQ(child.output, expected);
}

TEST_F(LogTest, AnInterruptedWriteIsRepeated) {
  ASSERT_EQ(mkfifo(file.c_str(), 0600), 0);
  const fd_owner reader{open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC)};
  const fd_owner filler{open(file.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC)};
  const std::string filling(static_cast<size_t>(fcntl(filler.get(), F_GETPIPE_SZ)), '.');
  ASSERT_EQ(write(filler.get(), filling.data(), filling.size()), static_cast<ssize_t>(filling.size()));
  testing::internal::CaptureStderr();
  std::string bytes;
  {
    interrupted_call writer{[] { log_write(level_info, "module", 1, "gets through\n"); }};
    writer.interrupt();
    char block[4096];
    EXPECT_TRUE(eventually([&] {
      const ssize_t count = read(reader.get(), block, sizeof block);
      if (count > 0) bytes.append(block, static_cast<size_t>(count));
      return bytes.ends_with('\n');
    }));
  }
  EXPECT_THAT(bytes, EndsWith(": gets through\n"));
  EXPECT_THAT(testing::internal::GetCapturedStderr(), IsEmpty());
}

TEST_F(LogTest, AStrangersLockStopsNobody) {
  write_text_file(file, "");
  const int stranger = open(file.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(flock(stranger, LOCK_EX), 0);
  EXPECT_THAT(console(level_info, "x\n"), IsEmpty());
  EXPECT_THAT(read_text_file(file), EndsWith(": x\n"));
  close(stranger);
}

TEST_F(LogTest, LeavesNoDescriptorOpen) {
  log_write(level_info, "module", 1, "x\n");
  const size_t before = open_descriptors();
  for (int i = 0; i < 100; ++i) {
    log_write(level_info, "module", 1, "x\n");
  }
  EXPECT_EQ(open_descriptors(), before);
}

TEST_F(LogTest, ThreadsLoseAndMixNoLines) {
  constexpr int count = 200;
  const auto work = [](const char* name) {
    for (int i = 0; i < count; ++i) {
      log_write(level_info, name, i, "end\n");
    }
  };
  std::vector<std::thread> threads;
  for (const char* name : {"one", "two", "three"}) {
    threads.emplace_back(work, name);
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  const std::string content = read_text_file(file);
  EXPECT_EQ(std::count(content.begin(), content.end(), '\n'), 3 * count);
  for (const char* name : {"one", "two", "three"}) {
    size_t at = 0;
    for (int i = 0; i < count; ++i) {
      at = content.find(std::string{":"} + name + ":" + std::to_string(i) + "\t   INFO: end\n", at);
      ASSERT_NE(at, std::string::npos) << name << i;
    }
  }
}

// More than the 64 MiB of address space that the C library keeps for each of its heaps.
constexpr size_t huge_size = 70'000'000;

TEST_F(LogTest, AMessageThatCantBeAllocatedIsDropped) {
  if (under_sanitizer) GTEST_SKIP() << "the sanitizers' allocators need the address space";
  const child_outcome child = run_in_child([&] {
    options.console_log = true;
    const std::string huge(huge_size, 'x');
    limit_memory(30'000'000);
    log_write(level_error, "module", 1, "%s\n", huge.c_str());
    log_write(level_error, "module", 2, "small\n");
    return 0;
  });
  EXPECT_EQ(child.status, 0);
  EXPECT_TRUE(child.output == "module: 2: WARNING: small\n") << child.output.size();
  EXPECT_THAT(read_text_file(file), MatchesRegex(STAMP "[^\n]*:2\tWARNING: small\n"));
}

TEST_F(LogTest, ALineThatCantBeAllocatedIsReported) {
  if (under_sanitizer) GTEST_SKIP() << "the sanitizers' allocators need the address space";
  const child_outcome child = run_in_child([&] {
    const std::string huge(huge_size, 'x');
    limit_memory(100'000'000);
    log_write(level_error, "module", 1, "%s\n", huge.c_str());
    return 0;
  });
  EXPECT_EQ(child.status, 0);
  EXPECT_EQ(child.output, std::string{"log_rotation_fwrite(): Cannot allocate memory\n"} + failure);
  EXPECT_FALSE(std::filesystem::exists(file));
}

// A small disk of its own, seen by one child process only.
class FullDiskTest : public LogTest {
protected:
  static constexpr int no_mount = 99;

  // Runs `body` in a child whose log folder is a file system of 256 KiB, holding a log of whole pages, so that
  // no further line fits once the rest is filled. Empty when this machine doesn't allow that.
  template <typename Body> child_outcome on_small_disk(Body body) {
    return run_in_child([&] {
      if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
          mount("tmpfs", folder.path().c_str(), "tmpfs", 0, "size=256k") != 0) {
        return no_mount;
      }
      write_text_file(file, std::string(8192, 'b'));
      return body();
    });
  }

  void fill_disk() {
    const int filler = open((folder / "filler").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const std::string page(4096, 'f');
    while (write(filler, page.data(), page.size()) > 0) {
    }
    close(filler);
  }

  [[nodiscard]] bool exists(const std::string& name) const { return std::filesystem::exists(folder / name); }
};

#define SKIP_WITHOUT_MOUNT(child) \
  if ((child).status == no_mount) GTEST_SKIP() << "mounting a small disk needs root"

TEST_F(FullDiskTest, CostsTheOldestGenerationsOneByOne) {
  const child_outcome child = on_small_disk([&] {
    write_text_file(folder / "agent.log.1", std::string(4096, '1'));
    write_text_file(folder / "agent.log.3.gz", std::string(4096, '3'));
    write_text_file(folder / "agent.log.5", "");  // frees nothing
    write_text_file(folder / "agent.log.6", "");  // beyond the count
    fill_disk();
    log_write(level_info, "module", 1, "gets through\n");
    if (exists("agent.log.5") || exists("agent.log.3.gz")) return 1;
    if (!exists("agent.log.1") || !exists("agent.log.6")) return 2;
    return read_text_file(file).ends_with(": gets through\n") ? 0 : 3;
  });
  SKIP_WITHOUT_MOUNT(child);
  EXPECT_EQ(child.status, 0);
  EXPECT_THAT(child.output, IsEmpty());
}

TEST_F(FullDiskTest, PrefersThePlainFormOfTheOldestGeneration) {
  const child_outcome child = on_small_disk([&] {
    write_text_file(folder / "agent.log.5", std::string(4096, '5'));
    write_text_file(folder / "agent.log.5.gz", std::string(4096, '5'));
    fill_disk();
    log_write(level_info, "module", 1, "gets through\n");
    return !exists("agent.log.5") && exists("agent.log.5.gz") ? 0 : 1;
  });
  SKIP_WITHOUT_MOUNT(child);
  EXPECT_EQ(child.status, 0);
}

TEST_F(FullDiskTest, ALineWaitsForSpaceAndHoldsItsFileMeanwhile) {
  const child_outcome child = on_small_disk([&] {
    write_text_file(folder / "agent.log.1", "");  // its end shows that the line waits
    fill_disk();
    std::thread writer{[] { log_write(level_info, "module", 1, "gets through\n"); }};
    eventually([&] { return !exists("agent.log.1"); });
    const int other = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    const bool held = flock(other, LOCK_EX | LOCK_NB) != 0;
    close(other);
    std::filesystem::remove(folder / "filler");
    writer.join();
    if (!held) return 1;
    return read_text_file(file).ends_with(": gets through\n") ? 0 : 2;
  });
  SKIP_WITHOUT_MOUNT(child);
  EXPECT_EQ(child.status, 0);
  EXPECT_THAT(child.output, IsEmpty());
}

TEST_F(FullDiskTest, NeverStopsTheProgramAndHealsWhenSpaceComes) {
  const child_outcome child = on_small_disk([&] {
    fill_disk();
    for (int i = 0; i < 3; ++i) {
      log_write(level_info, "module", 1, "lost\n");
    }
    if (std::filesystem::file_size(file) != 8192) return 1;
    std::filesystem::remove(folder / "filler");
    log_write(level_info, "module", 1, "gets through\n");
    return read_text_file(file).ends_with(": gets through\n") ? 0 : 2;
  });
  SKIP_WITHOUT_MOUNT(child);
  EXPECT_EQ(child.status, 0);
  const std::string once = std::string{"log_rotation_fwrite(): No space left on device\n"} + failure;
  EXPECT_EQ(child.output, once + once + once);
}

}  // namespace
