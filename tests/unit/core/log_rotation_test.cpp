#include "core/log_rotation.h"

#include "forked.h"
#include "process_limits.h"
#include "rotation_fixture.h"
#include "sanitizers.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <sched.h>
#include <set>
#include <sstream>
#include <string>
#include <sys/file.h>
#include <sys/mount.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using testing::ElementsAre;

TEST_F(RotationTest, ALineThatJustFitsStaysAndOneByteMoreRotates) {
  write_line("a", 2048);
  write_line("b", 2048);
  EXPECT_EQ(std::filesystem::file_size(file), 4096U);
  EXPECT_THAT(files(), ElementsAre("log"));
  std::filesystem::remove(file);

  write_line("a", 2048);
  write_line("b", 2049);
  wait_for_compression();
  EXPECT_EQ(std::filesystem::file_size(file), 2049U);
  EXPECT_EQ(read_gzip(generation(1) + ".gz").size(), 2048U);
}

TEST_F(RotationTest, FiveGenerationsAreKeptAndHoldTheirLines) {
  const std::string letters = "abcdefgh";
  for (const char letter : letters) {
    write_line({letter}, 3000);
    wait_for_compression();
  }
  EXPECT_THAT(files(), ElementsAre("log", "log.1.gz", "log.2.gz", "log.3.gz", "log.4.gz", "log.5.gz"));
  EXPECT_EQ(marks(read_text_file(file)), "h");
  for (int n = 1; n <= 5; ++n) {
    const std::string content = read_gzip(generation(n) + ".gz");
    EXPECT_EQ(content.size(), 3000U) << n;
    EXPECT_EQ(marks(content), std::string(1, letters[static_cast<size_t>(7 - n)])) << n;
  }
}

TEST_F(RotationTest, ACountOfOneKeepsOneGeneration) {
  options.log_rotation_count = 1;
  for (const char* mark : {"a", "b", "c"}) {
    write_line(mark, 3000);
    wait_for_compression();
  }
  EXPECT_THAT(files(), ElementsAre("log", "log.1.gz"));
  EXPECT_EQ(marks(read_text_file(file)), "c");
  EXPECT_EQ(marks(read_gzip(generation(1) + ".gz")), "b");
}

TEST_F(RotationTest, CountsBelowOneRenameNothing) {
  for (const int count : {0, -1, -2147483647 - 1}) {
    options.log_rotation_count = count;
    for (const char* mark : {"a", "b", "c"}) {
      write_line(mark, 3000);
      wait_for_compression();
    }
    EXPECT_THAT(files(), ElementsAre("log")) << count;
    EXPECT_EQ(marks(read_text_file(file)), "abc") << count;
    std::filesystem::remove(file);
  }
}

TEST_F(RotationTest, AHugeCountEndsInTime) {
  options.log_rotation_count = 2147483647;
  write_line("a", 3000);
  write_line("b", 3000);
  wait_for_compression();
  EXPECT_THAT(files(), ElementsAre("log", "log.1.gz"));
  EXPECT_EQ(delete_oldest_generation(file.c_str()), 1);
  EXPECT_EQ(delete_oldest_generation(file.c_str()), 0);
}

TEST_F(RotationTest, ALineLongerThanTheLimitRotatesEveryTime) {
  for (const char* mark : {"a", "b", "c"}) {
    write_line(mark, 5000);
    wait_for_compression();
  }
  EXPECT_EQ(marks(read_text_file(file)), "c");
  EXPECT_EQ(marks(read_gzip(generation(1) + ".gz")), "b");
  EXPECT_EQ(marks(read_gzip(generation(2) + ".gz")), "a");
}

TEST_F(RotationTest, TheConnectivityLogRotatesLikeTheLog) {
  const std::string name = folder / "connectivity";
  options.connectivity_log_file = name.c_str();
  const std::string text = "connected " + std::string(3000, '.') + "\n";
  log_write(level_status, "m", 1, "%s", text.c_str());
  log_write(level_status, "m", 1, "%s", text.c_str());
  wait_for_compression();
  EXPECT_THAT(files(), ElementsAre("connectivity", "connectivity.1.gz"));
}

TEST_F(RotationTest, ARelativeNameRotatesInTheWorkingFolder) {
  const child_outcome child = run_in_child([&] {
    if (chdir(folder.path().c_str()) != 0) return 1;
    options.log_file = "log";
    write_line("a", 3000);
    write_line("b", 3000);
    wait_for_compression();
    return 0;
  });
  EXPECT_EQ(child.status, 0);
  EXPECT_THAT(files(), ElementsAre("log", "log.1.gz"));
}

TEST_F(RotationTest, NoRotationWhileAnotherProcessHoldsTheFolder) {
  {
    const held_lock other{folder.path(), LOCK_EX};
    write_line("a", 3000);
    write_line("b", 3000);
    EXPECT_THAT(files(), ElementsAre("log"));
    EXPECT_EQ(marks(read_text_file(file)), "ab");
  }
  write_line("c", 3000);
  wait_for_compression();
  EXPECT_EQ(marks(read_text_file(file)), "c");
  EXPECT_EQ(marks(read_gzip(generation(1) + ".gz")), "ab");
}

TEST_F(RotationTest, AFileThatSomebodyElseJustRotatedIsLeftAlone) {
  write_line("a", 1000);
  rotate_log(file.c_str(), 100);
  EXPECT_THAT(files(), ElementsAre("log"));
}

// A lock on the file keeps the compression thread at work while these tests look at it.
TEST_F(RotationTest, NoRotationWhileACompressionRuns) {
  write_line("a", 3000);
  {
    const held_lock writer{file, LOCK_SH};
    write_line("b", 3000);
    write_line("c", 3000);
    EXPECT_THAT(files(), ElementsAre("log", "log.1"));
    EXPECT_EQ(marks(read_text_file(file)), "bc");
  }
  wait_for_compression();
  EXPECT_THAT(files(), ElementsAre("log", "log.1.gz"));
}

TEST_F(RotationTest, TheCompressionThreadTakesNoSignals) {
  write_line("a", 3000);
  const held_lock writer{file, LOCK_SH};
  write_line("b", 3000);
  int others = 0;
  for (const auto& task : std::filesystem::directory_iterator{"/proc/self/task"}) {
    if (task.path().filename() == std::to_string(getpid())) continue;
    ++others;
    const std::string status = read_text_file(task.path() / "status");
    const unsigned long long blocked = std::stoull(status.substr(status.find("SigBlk:") + 7), nullptr, 16);
    for (const int signal : {SIGHUP, SIGINT, SIGTERM, SIGUSR1, SIGUSR2, SIGCHLD, SIGPIPE, SIGALRM}) {
      EXPECT_NE(blocked & (1ULL << (signal - 1)), 0U) << signal;
    }
  }
  EXPECT_GE(others, 1);
  sigset_t own;
  pthread_sigmask(SIG_SETMASK, nullptr, &own);
  EXPECT_EQ(sigismember(&own, SIGTERM), 0);
}

TEST_F(RotationTest, TheLineOfALateWriterIsWaitedFor) {
  write_text_file(generation(1), "early\n");
  const int late = open(generation(1).c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
  ASSERT_EQ(flock(late, LOCK_SH), 0);
  std::thread compression{[this] { compress_rotated(strdup(file.c_str())); }};
  EXPECT_TRUE(eventually(
      [this] { return times_opened(generation(1)) >= 2 || std::filesystem::exists(generation(1) + ".gz"); }));
  // Now and then it looks whether the writer is done, and nothing more.
  for (int i = 0; i < 100; ++i) {
    EXPECT_FALSE(std::filesystem::exists(generation(1) + ".gz"));
    usleep(1000);
  }
  EXPECT_EQ(write(late, "late\n", 5), 5);
  close(late);
  compression.join();
  EXPECT_EQ(read_gzip(generation(1) + ".gz"), "early\nlate\n");
  EXPECT_FALSE(std::filesystem::exists(generation(1)));
}

TEST_F(RotationTest, EveryPlainGenerationIsCompressedButAnEmptyOne) {
  std::string big;
  for (int i = 0; i < 100'000; ++i) {
    big += std::to_string(i) + "\n";
  }
  write_text_file(generation(1), "one");
  write_text_file(generation(2), "");
  write_text_file(generation(4), big);
  write_text_file(generation(6), "beyond the count");
  compress_rotated(strdup(file.c_str()));
  EXPECT_THAT(files(), ElementsAre("log.1.gz", "log.2", "log.4.gz", "log.6"));
  EXPECT_EQ(read_gzip(generation(1) + ".gz"), "one");
  EXPECT_EQ(read_gzip(generation(4) + ".gz"), big);
}

TEST_F(RotationTest, WhatCantBeCompressedStaysAndIsCompressedLater) {
  write_text_file(generation(1), "one");
  std::filesystem::create_directory(generation(1) + ".gz");
  compress_rotated(strdup(file.c_str()));
  EXPECT_EQ(read_text_file(generation(1)), "one");
  std::filesystem::remove(generation(1) + ".gz");
  write_line("a", 3000);
  write_line("b", 3000);
  wait_for_compression();
  EXPECT_EQ(read_gzip(generation(2) + ".gz"), "one");
  EXPECT_THAT(files(), ElementsAre("log", "log.1.gz", "log.2.gz"));
}

TEST_F(RotationTest, AnInterruptedCompressionIsDoneAgain) {
  write_text_file(generation(1), "whole");
  write_text_file(generation(1) + ".gz", "half");
  write_line("a", 3000);
  write_line("b", 3000);
  wait_for_compression();
  EXPECT_THAT(files(), ElementsAre("log", "log.1.gz", "log.2.gz"));
  EXPECT_EQ(read_gzip(generation(2) + ".gz"), "whole");
}

TEST_F(RotationTest, TheOldestFallsOffInWhicheverFormItHas) {
  options.log_rotation_count = 2;
  write_text_file(generation(2), "oldest, never compressed");
  write_text_file(generation(1), "kept");
  compress_rotated(strdup(file.c_str()));
  std::filesystem::remove(generation(2) + ".gz");
  write_text_file(generation(2), "oldest, never compressed");
  write_line("a", 3000);
  write_line("b", 3000);
  wait_for_compression();
  EXPECT_THAT(files(), ElementsAre("log", "log.1.gz", "log.2.gz"));
  EXPECT_EQ(read_gzip(generation(2) + ".gz"), "kept");
}

TEST_F(RotationTest, DeletesTheOldestGenerationFirst) {
  for (const char* name : {"log", "log.1", "log.2.gz", "log.5", "log.5.gz", "log.6"}) {
    write_text_file(folder / name, "x");
  }
  EXPECT_EQ(delete_oldest_generation(file.c_str()), 1);
  EXPECT_THAT(files(), ElementsAre("log", "log.1", "log.2.gz", "log.5.gz", "log.6"));
  EXPECT_EQ(delete_oldest_generation(file.c_str()), 1);
  EXPECT_THAT(files(), ElementsAre("log", "log.1", "log.2.gz", "log.6"));
  EXPECT_EQ(delete_oldest_generation(file.c_str()), 1);
  EXPECT_EQ(delete_oldest_generation(file.c_str()), 1);
  EXPECT_EQ(delete_oldest_generation(file.c_str()), 0);
  EXPECT_THAT(files(), ElementsAre("log", "log.6"));
}

TEST_F(RotationTest, AForkedProcessForgetsTheParentsCompression) {
  if (under_thread_sanitizer) GTEST_SKIP() << "it allows no threads in the child of a process with threads";
  write_line("a", 3000);
  std::string child_file = folder / "child/log";
  std::filesystem::create_directory(folder / "child");
  int ended = -1;
  {
    const held_lock writer{file, LOCK_SH};
    write_line("b", 3000);
    // The compression runs now; the child rotates a log of its own all the same.
    const pid_t child = start_child([&] {
      log_after_fork();
      options.log_file = child_file.c_str();
      write_line("c", 3000);
      write_line("d", 3000);
      return std::filesystem::exists(child_file + ".1") || std::filesystem::exists(child_file + ".1.gz") ? 0
                                                                                                         : 1;
    });
    ended = wait_for_child(child);
  }
  EXPECT_EQ(ended, 0);
}

TEST_F(RotationTest, AForkedProcessDoesntKeepTheParentsLock) {
  int gate[2];
  ASSERT_EQ(pipe(gate), 0);
  pid_t child = -1;
  write_line("a", 3000);
  {
    const held_lock writer{file, LOCK_SH};
    write_line("b", 3000);
    child = start_child([&] {  // has copies of all descriptors until the gate closes
      char byte = 0;
      close(gate[1]);
      return read(gate[0], &byte, 1) == 0 ? 0 : 1;
    });
  }
  wait_for_compression();
  EXPECT_THAT(files(), ElementsAre("log", "log.1.gz"));
  close(gate[0]);
  close(gate[1]);
  EXPECT_EQ(wait_for_child(child), 0);
}

// Every line of the log and of all its generations, as "source:line".
std::multiset<std::string> all_lines(const std::string& folder) {
  std::multiset<std::string> found;
  for (const auto& entry : std::filesystem::directory_iterator{folder}) {
    const bool compressed = entry.path().extension() == ".gz";
    std::istringstream content{compressed ? read_gzip(entry.path()) : read_text_file(entry.path())};
    for (std::string line; std::getline(content, line);) {
      const size_t begin = line.find("):");
      const size_t end = line.find('\t');
      found.insert(begin < end && end != std::string::npos ? line.substr(begin + 2, end - begin - 2)
                                                           : "torn: " + line);
    }
  }
  return found;
}

TEST_F(RotationTest, TwoProcessesThatWriteAndRotateOneLogLoseNoLine) {
  constexpr int count = 3000;
  options.log_rotation_count = 1000;  // nothing falls off
  std::vector<pid_t> children;
  for (const char* name : {"agent", "watchdog"}) {
    children.push_back(start_child([&] {
      log_after_fork();
      for (int i = 1; i <= count; ++i) {
        log_write(level_info, name, i, "a message like any other\n");
      }
      wait_for_compression();
      return 0;
    }));
  }
  for (const pid_t child : children) {
    EXPECT_EQ(wait_for_child(child), 0);
  }
  std::multiset<std::string> expected;
  for (int i = 1; i <= count; ++i) {
    expected.insert("agent:" + std::to_string(i));
    expected.insert("watchdog:" + std::to_string(i));
  }
  EXPECT_GT(files().size(), 3U);
  EXPECT_TRUE(all_lines(folder.path()) == expected);
}

TEST_F(RotationTest, ACompressionThatIsKilledLeavesAPartBesideTheWholeGeneration) {
  const std::string noise = incompressible(160'000);
  write_text_file(generation(1), noise);
  const child_outcome child = run_in_child([&] {
    std::signal(SIGXFSZ, SIG_DFL);
    set_limit(RLIMIT_CORE, 0);
    set_limit(RLIMIT_FSIZE, 50'000);  // a write past that kills the process
    compress_rotated(strdup(file.c_str()));
    return 0;
  });
  EXPECT_EQ(child.status, -1);
  EXPECT_THAT(files(), ElementsAre("log.1", "log.1.gz.part"));
  EXPECT_TRUE(read_text_file(generation(1)) == noise);
}

TEST_F(RotationTest, ARotationRemovesThePartsOfKilledCompressions) {
  write_line("a", 3000);
  for (const int n : {1, 2, 5}) {
    write_text_file(generation(n) + ".gz.part", "half");
  }
  write_line("b", 3000);
  wait_for_compression();
  EXPECT_THAT(files(), ElementsAre("log", "log.1.gz"));
  EXPECT_EQ(marks(read_gzip(generation(1) + ".gz")), "a");
}

TEST_F(RotationTest, ACompressionWithoutSpaceKeepsThePlainGeneration) {
  constexpr int no_mount = 99;
  const child_outcome child = run_in_child([&] {
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", folder.path().c_str(), "tmpfs", 0, "size=256k") != 0) {
      return no_mount;
    }
    const std::string noise = incompressible(160'000);
    write_text_file(generation(1), noise);
    compress_rotated(strdup(file.c_str()));
    if (files() != std::vector<std::string>{"log.1"}) return 1;
    return read_text_file(generation(1)) == noise ? 0 : 2;
  });
  if (child.status == no_mount) GTEST_SKIP() << "mounting a small disk needs root";
  EXPECT_EQ(child.status, 0);
}

}  // namespace
