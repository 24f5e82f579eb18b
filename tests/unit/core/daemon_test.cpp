#include "core/daemon.h"

#include "core/owned.h"

#include "descriptors.h"
#include "log_capture.h"
#include "log_lines.h"
#include "logging_child.h"
#include "process_limits.h"
#include "sanitizers.h"
#include "temp_folder.h"

#include <climits>
#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>

namespace {

using testing::ElementsAre;

// What the test program's own versions of two system calls do, see the end of the file. Set in children.
pid_t parent_of_test = 0;
bool without_close_range = false;

// Runs `daemonized` in a daemonized process and gives what that exits with and what was logged. `prepare` runs
// before daemonize(). Daemonizing that fails exits with status 100.
child_outcome run_daemonized(const std::function<void()>& prepare, const std::function<int()>& daemonized) {
  return run_logging_child([&] {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    const pid_t child = fork();
    if (child == 0) {
      prepare();
      _exit(daemonize() == 0 ? daemonized() : 100);
    }
    // The two parents must both end with 0. The daemon's own end may be told before theirs.
    int ended = 0;
    int result = 0;
    for (int status = 0; wait(&status) > 0; ++ended) {
      const int code = WIFEXITED(status) ? WEXITSTATUS(status) : 102;
      if (code != 0 && result != 0) return 101;
      if (code != 0) result = code;
    }
    return ended == 3 || result == 100 ? result : 103;
  });
}

void nothing() {}

bool is_null_device(int fd) {
  struct stat of_fd {};
  struct stat of_device {};
  return fstat(fd, &of_fd) == 0 && stat("/dev/null", &of_device) == 0 && of_fd.st_rdev == of_device.st_rdev &&
         (fcntl(fd, F_GETFL) & O_ACCMODE) == O_RDWR && fcntl(fd, F_GETFD) == 0;
}

TEST(DaemonizeTest, StandsInASessionOfItsOwnWithoutLeadingIt) {
  const pid_t session = getsid(0);
  const child_outcome result = run_daemonized(nothing, [&] {
    if (getsid(0) == session) return 1;
    return getsid(0) == getpid() ? 2 : 0;
  });
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output, "");
}

TEST(DaemonizeTest, KeepsOnlyThreeDescriptorsOfTheNullDevice) {
  const auto checks = [] {
    for (int fd = 0; fd < 3; ++fd) {
      if (!is_null_device(fd)) return 1 + fd;
    }
    return open_descriptors() == 3 ? 0 : 10;
  };
  EXPECT_EQ(run_daemonized([] { dup2(2, 700); }, checks).status, 0);
}

TEST(DaemonizeTest, ClosesDescriptorsOneByOneWhereTheSystemCallIsMissing) {
  const auto prepare = [] {
    dup2(2, 700);
    without_close_range = true;
  };
  EXPECT_EQ(run_daemonized(prepare, [] { return open_descriptors() == 3 ? 0 : 1; }).status, 0);
}

TEST(DaemonizeTest, SetsFolderAndMaskAndIgnoresHangups) {
  const auto checks = [] {
    if (std::filesystem::current_path() != "/") return 1;
    if (umask(0) != 0) return 2;
    struct sigaction action {};
    sigaction(SIGHUP, nullptr, &action);
    return action.sa_handler == SIG_IGN ? 0 : 3;
  };
  EXPECT_EQ(run_daemonized([] { umask(077); }, checks).status, 0);
}

TEST(DaemonizeTest, WritesBufferedOutputOnce) {
  const temp_folder folder{std::filesystem::perms::all};
  const std::string output = folder / "output";
  const auto prepare = [&] {
    if (std::freopen(output.c_str(), "w", stdout) == nullptr) _exit(99);
    std::fputs("said before", stdout);
  };
  EXPECT_EQ(run_daemonized(prepare, [] { return std::fflush(stdout); }).status, 0);
  EXPECT_EQ(read_text_file(output), "said before");
}

TEST(DaemonizeTest, FailsUnderInit) {
  const child_outcome result = run_daemonized([] { parent_of_test = 1; }, [] { return 0; });
  EXPECT_EQ(result.status, 100);
  EXPECT_THAT(messages(result.output), ElementsAre("INFO: the process is already daemon."));
}

TEST(DaemonizeTest, FailsWithoutANewProcess) {
  const auto prepare = [] {
    set_limit(RLIMIT_NPROC, 0);
    drop_privileges();
  };
  const child_outcome result = run_daemonized(prepare, [] { return 0; });
  EXPECT_EQ(result.status, 100);
  EXPECT_THAT(messages(result.output), ElementsAre("WARNING: fork()"));
}

TEST(DaemonizeTest, FailsWithoutTheNullDevice) {
  if (geteuid() != 0) GTEST_SKIP() << "needs a root folder of its own";
  const temp_folder folder{std::filesystem::perms::all};
  const auto prepare = [&] {
    options.file_log = true;
    options.log_file = "/log";
    if (chroot(folder.path().c_str()) != 0) _exit(99);
  };
  EXPECT_EQ(run_daemonized(prepare, [] { return 0; }).status, 100);
  EXPECT_THAT(read_text_file(folder / "log"), testing::EndsWith("\tWARNING: open() /dev/null\n"));
}

// With so few descriptors allowed, those from the limit on are neither closed nor replaced: standard error is
// still there to read the message from.
TEST(DaemonizeTest, FailsWithoutRoomForTheStandardStreams) {
  const std::pair<rlim_t, std::string> cases[] = {{1, "WARNING: dup2() [stdout]"},
                                                  {2, "WARNING: dup2() [stderr]"}};
  for (const auto& [limit, text] : cases) {
    const child_outcome result =
        run_daemonized([most = limit] { set_limit(RLIMIT_NOFILE, most); }, [] { return 0; });
    EXPECT_EQ(result.status, 100);
    EXPECT_THAT(messages(result.output), ElementsAre(text));
  }
}

struct command_output {
  int result;
  bool null;
  std::string bytes;
};

command_output run_command(const std::string& command) {
  void* output = &output;
  uint32_t length = 77;
  const int result = exec_ext_app(command.c_str(), &output, &length);
  if (result != 0) return {result, true, ""};
  const c_bytes owner{static_cast<unsigned char*>(output)};
  return {result, output == nullptr, {static_cast<const char*>(output), output != nullptr ? length : 0}};
}

TEST(ExecExtAppTest, CollectsTheOutputByteForByte) {
  const std::string expected{"one\0two\n", 8};
  EXPECT_EQ(run_command("printf 'one\\000two\\n'").bytes, expected);
}

TEST(ExecExtAppTest, CollectsEveryLength) {
  for (const size_t size : {1U, 1023U, 1024U, 1025U, 2048U, 100'000U}) {
    const command_output run = run_command("head -c " + std::to_string(size) + " /dev/zero");
    EXPECT_EQ(run.result, 0);
    EXPECT_EQ(run.bytes, std::string(size, '\0'));
  }
}

TEST(ExecExtAppTest, NoOutputIsNull) {
  log_capture log;
  uint32_t length = 77;
  void* output = &length;
  EXPECT_EQ(exec_ext_app("true", &output, &length), 0);
  EXPECT_EQ(output, nullptr);
  EXPECT_EQ(length, 0U);
  EXPECT_EQ(log.text(), "");
}

TEST(ExecExtAppTest, TheExitStatusIsNotReported) {
  const command_output run = run_command("echo some; exit 3");
  EXPECT_EQ(run.result, 0);
  EXPECT_EQ(run.bytes, "some\n");
}

TEST(ExecExtAppTest, ACommandThatCantBeStartedFails) {
  const child_outcome result = run_logging_child([] {
    set_limit(RLIMIT_NOFILE, 3);
    return run_command("echo").result == -1 ? 0 : 1;
  });
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(messages(result.output), ElementsAre("WARNING: Can't execute echo."));
}

TEST(ExecExtAppTest, AFailedCloseIsOnlyLogged) {
  const child_outcome result = run_logging_child([] {
    std::signal(SIGCHLD, SIG_IGN);  // nothing is left to wait for
    const command_output run = run_command("echo some");
    return run.result == 0 && run.bytes == "some\n" ? 0 : 1;
  });
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(messages(result.output), ElementsAre("DEBUG: pclose(pipe) set errno to 10 value."));
}

TEST(ExecExtAppTest, MoreOutputThanMemoryFails) {
  if (under_sanitizer) GTEST_SKIP() << "the sanitizer's allocator aborts";
  const child_outcome result = run_logging_child([] {
    limit_memory(32U << 20U);
    uint32_t length = 77;
    void* output = &length;
    const int outcome = exec_ext_app("head -c 100000000 /dev/zero", &output, &length);
    return outcome == -1 && output == nullptr && length == 0 ? 0 : 1;
  });
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(messages(result.output), ElementsAre("WARNING: realloc() in exec_ext_app."));
}

}  // namespace

// These stand before the C library's own, for the whole test program.
extern "C" pid_t getppid() noexcept {
  return parent_of_test != 0 ? parent_of_test : static_cast<pid_t>(syscall(SYS_getppid));
}

extern "C" int close_range(unsigned first, unsigned last, int flags) noexcept {
  if (without_close_range) {
    errno = ENOSYS;
    return -1;
  }
  return static_cast<int>(syscall(SYS_close_range, first, last, flags));
}
