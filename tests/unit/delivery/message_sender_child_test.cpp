#include "delivery/message_sender_delivery.h"

#include "failing_calls.h"
#include "handler_ends.h"
#include "log_capture.h"
#include "log_lines.h"
#include "temp_folder.h"
#include "waiting.h"

#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/wait.h>

namespace {

using testing::ElementsAre;

// Longer than any pipe that is made here.
constexpr size_t long_length = 3'000'000;

// The pipe takes some bytes while the child that has failed is still about to close it.
const testing::Matcher<std::string> writed_less =
    testing::MatchesRegex("WARNING: write\\(\\)\\. Writed [0-9]+ bytes instead of 3000000\\.");

// Shell scripts as handlers. `report` in a script's text is a file that the test waits for.
class MessageSenderChild : public testing::Test {
protected:
  MessageSenderChild() { std::signal(SIGPIPE, SIG_IGN); }
  ~MessageSenderChild() override {
    EXPECT_TRUE(eventually(no_child_is_left));
    std::signal(SIGPIPE, SIG_DFL);
  }

  // A child that has ended and is not reaped yet; 0 when all are running, -1 when there is none at all.
  static pid_t ended_child() {
    siginfo_t info{};
    return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0 ? info.si_pid : -1;
  }

  static bool no_child_is_left() {
    reap_children();
    return ended_child() == -1;
  }

  // A program whose output goes to the report.
  [[nodiscard]] std::string script(const std::string& commands, const char* first_line = "#!/bin/sh\n",
                                   const char* afterwards = "") const {
    std::string path = folder_ / "handler";
    const std::string report = folder_ / "report";
    std::ofstream{path} << first_line << "{ " << commands << "; } > '" << report << ".new'\n"
                        << "mv '" << report << ".new' '" << report << "'\n"
                        << afterwards;
    chmod(path.c_str(), 0700);
    return path;
  }

  // What the script wrote.
  [[nodiscard]] std::string report() const {
    const std::string path = folder_ / "report";
    if (!eventually([&] { return std::filesystem::exists(path); })) return "no report";
    return read_text_file(path);
  }

  static void deliver(const std::string& path, const std::string& text) {
    execute_and_send(path.c_str(), text.data(), static_cast<uint32_t>(text.size()));
  }

  temp_folder folder_;
};

TEST_F(MessageSenderChild, ProgramGetsTheMessageOnStandardInput) {
  const std::string path = script("cat");
  log_capture log;
  deliver(path, "hello");
  EXPECT_EQ(report(), "hello");
  EXPECT_THAT(messages(log.text()), ElementsAre("DEBUG: Sended 5 bytes to local handler " + path + "."));
}

TEST_F(MessageSenderChild, MessagesOfEverySizeArriveByteForByte) {
  for (const size_t length : {size_t{1}, size_t{65'535}, size_t{65'536}, size_t{65'537}, long_length}) {
    const std::string text = payload_of(length);
    deliver(script("cat"), text);
    EXPECT_TRUE(report() == text) << length;
    std::filesystem::remove(folder_ / "report");
  }
}

TEST_F(MessageSenderChild, EmptyMessageStartsTheProgram) {
  const std::string path = script("cat; echo end");
  log_capture log;
  deliver(path, "");
  EXPECT_EQ(report(), "end\n");
  EXPECT_THAT(messages(log.text()), ElementsAre("DEBUG: Sended 0 bytes to local handler " + path + "."));
}

TEST_F(MessageSenderChild, MissingDataCountsAsNothingWritten) {
  const std::string path = script("cat; echo end");
  log_capture log;
  execute_and_send(path.c_str(), nullptr, 7);
  EXPECT_EQ(report(), "end\n");
  EXPECT_THAT(messages(log.text()), ElementsAre("WARNING: write(). Writed 0 bytes instead of 7."));
}

TEST_F(MessageSenderChild, ScriptWithoutInterpreterLineRuns) {
  deliver(script("cat", ""), "hello");
  EXPECT_EQ(report(), "hello");
}

TEST_F(MessageSenderChild, ProgramIsItsOwnOnlyArgument) {
  const std::string path = script(R"(echo "$#"; tr '\0' '\n' < /proc/$$/cmdline)");
  deliver(path, "");
  EXPECT_EQ(report(), "0\n/bin/sh\n" + path + "\n");
}

TEST_F(MessageSenderChild, ProgramStartsInRootFolderWithoutFileCreationMask) {
  deliver(script("pwd; umask"), "");
  EXPECT_EQ(report(), "/\n0000\n");
}

TEST_F(MessageSenderChild, OutputAndErrorGoNowhere) {
  const std::string path = folder_ / "program";
  const std::string result = folder_ / "result";
  std::ofstream{path} << "#!/bin/sh\noutput=$(readlink /proc/$$/fd/1)\nerror=$(readlink /proc/$$/fd/2)\n"
                      << "echo $output $error > '" << result << ".new'\nmv '" << result << ".new' '" << result
                      << "'\n";
  chmod(path.c_str(), 0700);
  deliver(path, "");
  EXPECT_TRUE(eventually([&] { return std::filesystem::exists(result); }));
  EXPECT_EQ(read_text_file(result), "/dev/null /dev/null\n");
}

TEST_F(MessageSenderChild, ProgramInheritsStandardDescriptorsOnly) {
  // Left open on purpose for a program to inherit, at numbers where nothing else is.
  fd_owner inheritable[3];
  for (fd_owner& each : inheritable) {
    each.reset(fcntl(STDERR_FILENO, F_DUPFD, 100));
  }
  // Descriptor 3 is the folder that ls itself reads.
  deliver(script("exec ls -x /proc/self/fd; echo"), "");
  const std::string path = folder_ / "report.new";
  EXPECT_TRUE(eventually([&] { return count_of(read_text_file(path), "\n") > 0; }));
  EXPECT_EQ(read_text_file(path), "0  1  2  3\n");
}

TEST_F(MessageSenderChild, SignalsAreAsInAFreshProcessButForHangup) {
  for (const int number : {SIGUSR1, SIGTERM, SIGCHLD}) {
    std::signal(number, SIG_IGN);
  }
  sigset_t all;
  sigset_t saved;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &saved);
  deliver(script("exec grep -E '^Sig(Blk|Ign)' /proc/self/status"), "");
  pthread_sigmask(SIG_SETMASK, &saved, nullptr);
  for (const int number : {SIGUSR1, SIGTERM, SIGCHLD}) {
    std::signal(number, SIG_DFL);
  }
  const std::string path = folder_ / "report.new";
  EXPECT_TRUE(eventually([&] { return count_of(read_text_file(path), "\n") == 2; }));
  EXPECT_EQ(read_text_file(path), "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000001\n");
}

TEST_F(MessageSenderChild, ProgramThatNeverReadsTakesAMessageThatFitsThePipe) {
  const std::string path = script("echo $$", "#!/bin/sh\n", "exec sleep 1000\n");
  for (const size_t length : {size_t{5}, size_t{65'536}}) {
    log_capture log;
    deliver(path, payload_of(length));
    EXPECT_THAT(messages(log.text()), ElementsAre("DEBUG: Sended " + std::to_string(length) +
                                                  " bytes to local handler " + path + "."));
    EXPECT_EQ(kill(std::stoi(report()), SIGTERM), 0);
    std::filesystem::remove(folder_ / "report");
  }
}

TEST_F(MessageSenderChild, ProgramThatEndsEarlyTakesAMessageThatFitsThePipe) {
  for (int i = 0; i < 20; ++i) {
    const std::string path = i % 2 == 0 ? "/bin/true" : folder_ / "vanished";
    log_capture log;
    deliver(path, payload_of(65'536));
    EXPECT_EQ(messages(log.text()).back(), "DEBUG: Sended 65536 bytes to local handler " + path + ".");
  }
}

TEST_F(MessageSenderChild, ProgramThatEndsBeforeALongMessageFailsTheDelivery) {
  const std::string path = script("echo ended");
  log_capture log;
  deliver(path, payload_of(long_length));
  EXPECT_THAT(messages(log.text()),
              ElementsAre("WARNING: some error. errno = 32 - Broken pipe.", writed_less));
}

TEST_F(MessageSenderChild, MissingProgramIsLogged) {
  const std::string path = folder_ / "vanished";
  log_capture log;
  deliver(path, "hello");
  EXPECT_THAT(messages(log.text()), ElementsAre("WARNING: Cannot execute " + path + ", errno 2.",
                                                "DEBUG: Sended 5 bytes to local handler " + path + "."));
}

TEST_F(MessageSenderChild, LongMessageToAMissingProgramFails) {
  const std::string path = folder_ / "vanished";
  log_capture log;
  deliver(path, payload_of(long_length));
  EXPECT_THAT(messages(log.text()),
              ElementsAre("WARNING: Cannot execute " + path + ", errno 2.",
                          "WARNING: some error. errno = 32 - Broken pipe.", writed_less));
}

// The process id in front of the only log line with `part`: "2024-01-31 12:00:00 (123):message_sender:..."
pid_t process_of_line(const std::string& log, std::string_view part) {
  const size_t line = log.rfind('\n', log.find(part)) + 1;
  return std::stoi(log.substr(log.find('(', line) + 1));
}

TEST_F(MessageSenderChild, ChildsFailureIsLoggedUnderTheChildsProcessId) {
  const std::string log_file = folder_ / "log";
  {
    log_capture log;
    options.file_log = true;
    options.log_file = log_file.c_str();
    deliver(folder_ / "vanished", "hello");
  }
  const std::string log = read_text_file(log_file);
  ASSERT_EQ(count_of(log, "):message_sender:"), 2U);
  EXPECT_NE(process_of_line(log, "WARNING: Cannot execute "), getpid());
  EXPECT_EQ(process_of_line(log, "  DEBUG: Sended 5 bytes "), getpid());
}

TEST_F(MessageSenderChild, MissingPipeIsLogged) {
  log_capture log;
  const failing_call failing{"pipe2", EMFILE};
  deliver("/bin/true", "lost");
  EXPECT_THAT(messages(log.text()), ElementsAre("WARNING: Cannot create pipe. errno: 24."));
}

TEST_F(MessageSenderChild, FailedForkIsLogged) {
  log_capture log;
  const failing_call failing{"vfork", EAGAIN};
  deliver("/bin/true", "lost");
  EXPECT_THAT(messages(log.text()), ElementsAre("WARNING: fork(), errno: 11."));
}

struct write_case {
  int error;  ///< 0: write gives 0
  const char* line;
};

TEST_F(MessageSenderChild, FailedWriteIsLogged) {
  constexpr write_case cases[] = {
      {0, "WARNING: connection was closed. Possible error."},
      {EIO, "WARNING: some error. errno = 5 - Input/output error."},
  };
  for (const write_case& each : cases) {
    log_capture log;
    const failing_call failing{"write", each.error};
    deliver("/bin/true", "lost");
    EXPECT_THAT(messages(log.text()),
                ElementsAre(each.line, "WARNING: write(). Writed 0 bytes instead of 4."));
  }
}

TEST_F(MessageSenderChild, InterruptedWriteIsRepeated) {
  const std::string path = script("cat");
  log_capture log;
  const failing_call failing{"write", EINTR, 2};
  deliver(path, "hello");
  EXPECT_THAT(messages(log.text()),
              ElementsAre("DEBUG: interrupted by signal.", "DEBUG: interrupted by signal.",
                          "DEBUG: Sended 5 bytes to local handler " + path + "."));
  EXPECT_EQ(report(), "hello");
}

TEST_F(MessageSenderChild, EndedProgramIsReapedWhileANewerOneRuns) {
  const std::string path = script("echo $$", "#!/bin/sh\n", "exec sleep 1000\n");
  deliver("/bin/true", "");
  EXPECT_TRUE(eventually([] { return ended_child() > 0; }));
  deliver(path, "");
  reap_children();
  EXPECT_EQ(ended_child(), 0);
  EXPECT_EQ(kill(std::stoi(report()), SIGTERM), 0);
}

TEST_F(MessageSenderChild, ChildrenOfOthersAreNotReaped) {
  const pid_t own = fork();
  if (own == 0) _exit(7);
  siginfo_t info{};
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(own), &info, WEXITED | WNOWAIT), 0);
  deliver("/bin/true", "");
  reap_children();
  int status = 0;
  EXPECT_EQ(waitpid(own, &status, 0), own);
  EXPECT_EQ(WEXITSTATUS(status), 7);
}

// A process that was started with closed standard descriptors uses their numbers for its pipes.
TEST_F(MessageSenderChild, ProgramIsServedWhenStandardDescriptorsAreClosed) {
  const std::string path = script("cat");
  const pid_t bare = fork();
  if (bare == 0) {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
      close(fd);
    }
    deliver(path, "hello");
    _exit(0);
  }
  waitpid(bare, nullptr, 0);
  EXPECT_EQ(report(), "hello");
}

}  // namespace
