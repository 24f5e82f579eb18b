#include "core/daemon.h"

#include "log_capture.h"
#include "log_lines.h"
#include "logging_child.h"
#include "process_limits.h"
#include "real_function.h"
#include "temp_folder.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <utility>

namespace {

using testing::ElementsAre;

// Runs once, when the process that a pid file names is looked for: after the file was read.
std::function<void()> at_next_probe;

class PidFileTest : public testing::Test {
protected:
  // The log of an attempt that must fail.
  std::vector<std::string> log_of_failure() {
    log_capture log;
    EXPECT_EQ(lock_pid_file(path.c_str()), -1);
    return messages(log.text());
  }

  // The process that holds a write lock on the file; 0: none. Asked by another process, as a holder never sees
  // its own lock.
  pid_t lock_holder() {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    const pid_t child = fork();
    if (child == 0) {
      struct flock lock {};
      lock.l_type = F_WRLCK;
      const int fd = open(path.c_str(), O_RDWR);
      const pid_t holder = fcntl(fd, F_GETLK, &lock) != 0 ? -1 : lock.l_type == F_UNLCK ? 0 : lock.l_pid;
      _exit(write(ends[1], &holder, sizeof holder) == sizeof holder ? 0 : 1);
    }
    waitpid(child, nullptr, 0);
    pid_t holder = -1;
    EXPECT_EQ(read(ends[0], &holder, sizeof holder), static_cast<ssize_t>(sizeof holder));
    close(ends[0]);
    close(ends[1]);
    return holder;
  }

  temp_folder folder{std::filesystem::perms::all};
  std::string path = folder / "agent.pid";
  std::string opened = "DEBUG: open() " + path;
};

TEST_F(PidFileTest, NamesTheProcessAndIsLocked) {
  const mode_t mask = umask(0);
  const int fd = lock_pid_file(path.c_str());
  umask(mask);
  ASSERT_GE(fd, 0);
  struct stat status {};
  EXPECT_EQ(fstat(fd, &status), 0);
  EXPECT_EQ(status.st_mode, S_IFREG | 0660U);
  EXPECT_EQ(read_text_file(path), std::to_string(getpid()) + "\n");
  EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
  close(fd);
}

TEST_F(PidFileTest, IsLockedUntilItIsGivenBack) {
  const int fd = lock_pid_file(path.c_str());
  EXPECT_EQ(lock_holder(), getpid());

  EXPECT_EQ(unlock_pid_file(path.c_str(), fd), 0);
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

TEST_F(PidFileTest, SaysNothingWhenItIsNew) {
  log_capture log;
  EXPECT_EQ(unlock_pid_file(path.c_str(), lock_pid_file(path.c_str())), 0);
  EXPECT_EQ(log.text(), "");
}

TEST_F(PidFileTest, OfALiveProcessStopsTheStart) {
  const std::string pid = std::to_string(getppid());
  write_text_file(path, pid + "\n");
  EXPECT_THAT(log_of_failure(),
              ElementsAre(opened, "INFO: opened ok",
                          "DEBUG: read from pid file pid " + pid + ", kill result is 0, errno is 0",
                          "INFO: Daemon is already running."));
  EXPECT_EQ(read_text_file(path), pid + "\n");
}

TEST_F(PidFileTest, OfADeadProcessIsReplaced) {
  const std::string pid = std::to_string(dead_process());
  write_text_file(path, pid + "\n");
  log_capture log;
  const int fd = lock_pid_file(path.c_str());
  EXPECT_THAT(messages(log.text()),
              ElementsAre(opened, "INFO: opened ok",
                          "DEBUG: read from pid file pid " + pid + ", kill result is -1, errno is 3",
                          "INFO: Remove not associated pid file."));
  EXPECT_EQ(lock_holder(), getpid());
  EXPECT_EQ(read_text_file(path), std::to_string(getpid()) + "\n");  // reading the file drops the lock
  close(fd);
}

TEST_F(PidFileTest, OfAnotherUsersProcessStopsTheStart) {
  write_text_file(path, "1\n");
  std::filesystem::permissions(path, std::filesystem::perms{0666});
  const child_outcome result = run_logging_child([&] {
    drop_privileges();
    return lock_pid_file(path.c_str()) == -1 ? 0 : 1;
  });
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(messages(result.output),
              ElementsAre(opened, "INFO: opened ok",
                          "DEBUG: read from pid file pid 1, kill result is -1, errno is 1",
                          "WARNING: kill(). errno 1"));
}

TEST_F(PidFileTest, OnlyEightCharactersOfTheNumberAreRead) {
  write_text_file(path, "  123456789\n");
  log_capture log;
  const int fd = lock_pid_file(path.c_str());
  EXPECT_THAT(log.text(),
              testing::HasSubstr("read from pid file pid 12345678, kill result is -1, errno is 3\n"));
  EXPECT_GE(fd, 0);
  close(fd);
}

TEST_F(PidFileTest, WithoutANumberStopsTheStart) {
  for (const char* content : {"", "\n", "agent 12\n", "-\n"}) {
    write_text_file(path, content);
    EXPECT_THAT(log_of_failure(),
                ElementsAre(opened, "INFO: opened ok",
                            "WARNING: Error reading data from pid file - possibly data is in wrong format"))
        << content;
    EXPECT_EQ(read_text_file(path), content);
  }
}

TEST_F(PidFileTest, ThatCantBeOpenedForReadingStopsTheStart) {
  std::filesystem::create_directory(path);
  EXPECT_THAT(log_of_failure(),
              ElementsAre(opened, "INFO: opened ok",
                          "WARNING: Error opening pid file for reading " + std::to_string(EISDIR)));
}

TEST_F(PidFileTest, InAMissingFolderStopsTheStart) {
  path = folder / "absent/agent.pid";
  EXPECT_THAT(log_of_failure(), ElementsAre("DEBUG: open() " + path, "WARNING: lock file access()."));
}

TEST_F(PidFileTest, ThatIsADanglingLinkStopsTheStart) {
  std::filesystem::create_symlink(folder / "absent", path);
  EXPECT_THAT(log_of_failure(), ElementsAre(opened, "WARNING: lock file access()."));
}

TEST_F(PidFileTest, ThatCantBeWrittenIsRemoved) {
  const child_outcome result = run_logging_child([&] {
    std::signal(SIGXFSZ, SIG_IGN);
    set_limit(RLIMIT_FSIZE, 0);
    return lock_pid_file(path.c_str()) == -1 ? 0 : 1;
  });
  EXPECT_EQ(result.status, 0);
  EXPECT_THAT(messages(result.output), ElementsAre("WARNING: write() " + path));
  EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

TEST_F(PidFileTest, OfAStarterThatIsKilledBeforeItsNumberIsWrittenHindersNoLaterStart) {
  const pid_t starter = start_child([&] {
    set_limit(RLIMIT_FSIZE, 0);  // its write is its end, by SIGXFSZ
    return lock_pid_file(path.c_str());
  });
  EXPECT_EQ(wait_for_child(starter), -1);
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_EQ(unlock_pid_file(path.c_str(), lock_pid_file(path.c_str())), 0);
}

TEST_F(PidFileTest, LeavesNoOtherFileBehind) {
  std::filesystem::create_directory(path);
  EXPECT_EQ(lock_pid_file(path.c_str()), -1);
  std::filesystem::remove(path);
  const int fd = lock_pid_file(path.c_str());
  const std::filesystem::directory_iterator files{folder.path()};
  EXPECT_EQ(std::distance(begin(files), end(files)), 1);
  close(fd);
}

TEST_F(PidFileTest, ThatCantBeDeletedStopsTheStart) {
  if (geteuid() != 0) GTEST_SKIP() << "needs a folder of another user";
  write_text_file(path, std::to_string(dead_process()));
  std::filesystem::permissions(path, std::filesystem::perms{0666});
  std::filesystem::permissions(folder.path(), std::filesystem::perms{0755});
  const child_outcome result = run_logging_child([&] {
    drop_privileges();
    return lock_pid_file(path.c_str()) == -1 ? 0 : 1;
  });
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(messages(result.output).back(), "WARNING: remove_file() " + path);
  EXPECT_TRUE(std::filesystem::exists(path));
}

TEST_F(PidFileTest, ThatAnotherStarterIsReplacingIsLeftToIt) {
  write_text_file(path, std::to_string(dead_process()));
  const int fd = open(path.c_str(), O_RDWR);
  struct flock lock {};
  lock.l_type = F_WRLCK;
  ASSERT_EQ(fcntl(fd, F_SETLK, &lock), 0);

  const child_outcome result = run_logging_child([&] { return lock_pid_file(path.c_str()) == -1 ? 0 : 1; });
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(messages(result.output).back(), "WARNING: remove_file() " + path);
  EXPECT_TRUE(std::filesystem::exists(path));
  close(fd);
}

TEST_F(PidFileTest, ThatAnotherStarterHasReplacedIsLeftAlone) {
  write_text_file(path, std::to_string(dead_process()));
  at_next_probe = [&] {
    write_text_file(folder / "newer", std::to_string(getppid()) + "\n");
    std::filesystem::rename(folder / "newer", path);
  };
  EXPECT_EQ(log_of_failure().back(), "WARNING: remove_file() " + path);
  EXPECT_EQ(read_text_file(path), std::to_string(getppid()) + "\n");
}

TEST_F(PidFileTest, ThatVanishesBeforeItsRemovalStopsTheStart) {
  write_text_file(path, std::to_string(dead_process()));
  at_next_probe = [&] { std::filesystem::remove(path); };
  EXPECT_EQ(log_of_failure().back(), "WARNING: remove_file() " + path);
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(PidFileTest, ThatVanishedCantBeRemovedAtTheEnd) {
  const int fd = lock_pid_file(path.c_str());
  std::filesystem::remove(path);
  log_capture log;
  EXPECT_EQ(unlock_pid_file(path.c_str(), fd), -1);
  EXPECT_THAT(messages(log.text()), ElementsAre("WARNING: remove_file() after unlock " + path));
}

TEST_F(PidFileTest, IsRemovedEvenIfItsDescriptorIsGone) {
  write_text_file(path, "1\n");
  log_capture log;
  EXPECT_EQ(unlock_pid_file(path.c_str(), -1), 0);
  EXPECT_THAT(messages(log.text()),
              ElementsAre("WARNING: fcntl() unlock file error " + path, "WARNING: close() " + path));
  EXPECT_FALSE(std::filesystem::exists(path));
}

// Starters that run at the same time. Each tells its result and lives on until all have.
class starters {
public:
  explicit starters(const std::string& path) {
    EXPECT_EQ(pipe(start_), 0);
    EXPECT_EQ(pipe(results_), 0);
    EXPECT_EQ(pipe(end_), 0);
    for (pid_t& child : children_) {
      child = fork();
      if (child == 0) start(path.c_str());
    }
    close(start_[1]);  // the starting shot
    close(start_[0]);
    close(results_[1]);
    close(end_[0]);
  }
  ~starters() {
    close(end_[1]);
    close(results_[0]);
    for (const pid_t child : children_) {
      waitpid(child, nullptr, 0);
    }
  }
  starters(const starters&) = delete;
  starters& operator=(const starters&) = delete;

  // The ids of those that got the file.
  std::vector<pid_t> winners() {
    std::vector<pid_t> found;
    for (size_t i = 0; i < std::size(children_); ++i) {
      pid_t winner = 0;
      EXPECT_EQ(read(results_[0], &winner, sizeof winner), static_cast<ssize_t>(sizeof winner));
      if (winner != 0) found.push_back(winner);
    }
    return found;
  }

private:
  [[noreturn]] void start(const char* path) {
    char byte = 0;
    close(start_[1]);
    close(end_[1]);
    if (read(start_[0], &byte, 1) != 0) _exit(1);
    const pid_t winner = lock_pid_file(path) >= 0 ? getpid() : 0;
    if (write(results_[1], &winner, sizeof winner) != sizeof winner) _exit(1);
    _exit(static_cast<int>(read(end_[0], &byte, 1)));
  }

  int start_[2];
  int results_[2];
  int end_[2];
  pid_t children_[6];
};

TEST_F(PidFileTest, OfSeveralStartersExactlyOneGetsIt) {
  for (int round = 0; round < 60; ++round) {
    const bool stale = round % 2 == 0;
    if (stale) write_text_file(path, std::to_string(dead_process()) + "\n");
    starters all{path};
    const std::vector<pid_t> winners = all.winners();
    ASSERT_EQ(winners.size(), 1U) << "round " << round;
    EXPECT_EQ(read_text_file(path), std::to_string(winners[0]) + "\n");
    std::filesystem::remove(path);
    EXPECT_TRUE(std::filesystem::is_empty(folder.path())) << "the losers leave nothing";
  }
}

}  // namespace

// Stands before the C library's own (or the sanitizer's), for the whole test program.
extern "C" int kill(pid_t process, int number) noexcept {
  if (number == 0 && at_next_probe) std::exchange(at_next_probe, nullptr)();
  return real_function<decltype(kill)>("kill")(process, number);
}
