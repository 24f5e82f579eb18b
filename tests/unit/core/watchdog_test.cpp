#include "core/watchdog.h"

#include "core/agent_settings.h"
#include "core/daemon.h"
#include "core/exit_process.h"

#include "log_lines.h"
#include "logging_child.h"
#include "process_limits.h"
#include "temp_folder.h"
#include "waiting.h"

#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <utility>

namespace {

using testing::ElementsAre;

// The agents of these tests find their folder in the settings' service id, and tell there what they see: one
// file for each event, one line for each agent it happened to.
void note(const AgentSettings* settings, const std::string& event, const std::string& what) {
  const std::string line = what + "\n";
  const int fd = open((std::string{settings->service_id} + "/" + event).c_str(),
                      O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
  if (write(fd, line.c_str(), line.size()) != static_cast<ssize_t>(line.size())) _exit(90);
  close(fd);
}

void note_start(const AgentSettings* settings) {
  note(settings, "start", std::to_string(getpid()));
}

// Notes each signal of `numbers` as it comes, until `last` has.
void note_signals(const AgentSettings* settings, const std::vector<int>& numbers, int last) {
  sigset_t set;
  sigemptyset(&set);
  for (const int number : numbers) {
    sigaddset(&set, number);
  }
  sigprocmask(SIG_BLOCK, &set, nullptr);
  note_start(settings);
  for (int number = 0; number != last;) {
    sigwait(&set, &number);
    note(settings, "signals", std::to_string(number));
  }
}

// Ends only by a signal's default action.
void idle_agent(AgentSettings* settings) {
  note_start(settings);
  sleep_forever();
}

// Ends by itself on SIGTERM.
void orderly_agent(AgentSettings* settings) {
  note_signals(settings, {SIGUSR1, SIGUSR2, SIGTERM}, SIGTERM);
}

// Notes SIGTERM and stays.
void stubborn_agent(AgentSettings* settings) {
  note_signals(settings, {SIGTERM, SIGUSR1}, SIGUSR1);
}

class WatchdogTest : public testing::Test {
protected:
  WatchdogTest() { settings.service_id = const_cast<char*>(folder.path().c_str()); }

  ~WatchdogTest() override {
    if (watchdog > 0) kill_all();
  }

  // Runs the watchdog in a process group of its own. `prepare` runs in it before.
  void start(
      void (*run_agent)(AgentSettings*), const std::function<void()>& prepare = [] {}) {
    watchdog = fork();
    if (watchdog == -1) std::abort();
    setpgid(watchdog, 0);  // in both processes, as either may be the first to need it
    if (watchdog != 0) return;
    options.log_level = level_debug;
    options.console_log = false;
    options.file_log = true;
    options.log_file = log_file.c_str();
    prepare();
    run_watchdog(pid_file.c_str(), run_agent, &settings);
  }

  // Waits until the watchdog has ended by itself.
  bool ended() {
    return eventually([&] {
      siginfo_t end{};
      return waitid(P_PID, static_cast<id_t>(watchdog), &end, WEXITED | WNOHANG | WNOWAIT) == 0 &&
             end.si_pid == watchdog;
    });
  }

  // The watchdog's exit status, once it has ended by itself; -1 when it doesn't.
  int end_status() {
    if (!ended()) return -1;
    const int status = kill_all();
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  // Ends the watchdog, if it still runs, and its agents. The watchdog is reaped last: as long as its id is not
  // free, no other process can have it. Its wait status.
  int kill_all() {
    int status = 0;
    kill(-watchdog, SIGKILL);
    waitpid(std::exchange(watchdog, 0), &status, 0);
    return status;
  }

  // The lines of an event's file.
  std::vector<std::string> noted(const std::string& event) {
    return lines_of(read_text_file(folder / event));
  }

  // Stops a process for the time being, and waits until it stands: the signal itself is only a request.
  static void halt(pid_t process) {
    send(process, SIGSTOP);
    const std::string status = "/proc/" + std::to_string(process) + "/status";
    EXPECT_TRUE(eventually([&] { return read_text_file(status).find("State:\tT") != std::string::npos; }));
  }

  // The id of the agent that was started as number `n` (from 1), which is waited for.
  pid_t agent(size_t n) {
    if (!eventually([&] { return noted("start").size() >= n; })) return 0;
    return std::atoi(noted("start")[n - 1].c_str());
  }

  // Never with an id that stands for more than one process.
  static void send(pid_t process, int number) {
    ASSERT_GT(process, 0);
    kill(process, number);
  }

  bool signals_arrive(const std::vector<std::string>& expected) {
    return eventually([&] { return noted("signals") == expected; });
  }

  // The log of this test as "LEVEL: text".
  std::vector<std::string> log() {
    std::vector<std::string> found;
    for (const std::string& line : noted("log")) {
      const size_t tag = line.find_first_not_of(' ', line.find('\t') + 1);
      found.push_back(line.substr(tag));
    }
    return found;
  }

  // Waits until the watchdog has taken every signal that was sent to it.
  bool nothing_pending() {
    const std::string status = "/proc/" + std::to_string(watchdog) + "/status";
    return eventually(
        [&] { return read_text_file(status).find("\nShdPnd:\t0000000000000000\n") != std::string::npos; });
  }

  temp_folder folder{std::filesystem::perms::all};
  std::string pid_file = folder / "watchdog.pid";
  std::string log_file = folder / "log";
  AgentSettings settings{};
  pid_t watchdog = 0;
};

const std::string locked = "INFO: orvel locked the watchdog pid file.";
const std::string child_ended = "DEBUG: Received sigchld in watchdog.";
const std::string ended_normally = "INFO: Child exit normally.";

TEST_F(WatchdogTest, HoldsItsPidFile) {
  start(idle_agent);
  EXPECT_GT(agent(1), 0);
  EXPECT_EQ(read_text_file(pid_file), std::to_string(watchdog) + "\n");
  EXPECT_THAT(log(), ElementsAre(locked));
}

TEST_F(WatchdogTest, ASecondOneEndsWithStatus1) {
  write_text_file(pid_file, std::to_string(getpid()) + "\n");
  start(idle_agent);
  EXPECT_EQ(end_status(), 1);
  EXPECT_EQ(log().back(), "WARNING: failed to lock the watchdog pid file.");
  EXPECT_THAT(log(), testing::Contains("INFO: Daemon is already running."));
  EXPECT_TRUE(noted("start").empty());
}

TEST_F(WatchdogTest, WithoutANewProcessItEndsWithStatus1) {
  start(idle_agent, [] {
    drop_privileges();
    set_limit(RLIMIT_NPROC, 0);
    // What follows the exit (a leak check) may need threads and its own memory again.
    prctl(PR_SET_DUMPABLE, 1);
    std::atexit([] { set_limit(RLIMIT_NPROC, 10'000); });
  });
  EXPECT_EQ(end_status(), 1);
  EXPECT_THAT(log(), ElementsAre(locked, "WARNING: fork(). errno: 11."));
}

TEST_F(WatchdogTest, EndsWhenTheAgentReturns) {
  start([](AgentSettings* given) { note(given, "start", std::to_string(getpid())); });
  EXPECT_EQ(end_status(), 0);
  EXPECT_THAT(log(), ElementsAre(locked, child_ended, ended_normally));
  EXPECT_EQ(noted("start").size(), 1U);
  EXPECT_TRUE(std::filesystem::exists(pid_file));
}

TEST_F(WatchdogTest, EndsWithStatus0WhateverStatusTheAgentHad) {
  start([](AgentSettings* given) {
    note_start(given);
    exit_process(1);
  });
  EXPECT_EQ(end_status(), 0);
  EXPECT_THAT(log(), ElementsAre(locked, child_ended, ended_normally));
}

TEST_F(WatchdogTest, ReplacesAnAgentThatWasKilled) {
  start(idle_agent);
  size_t started = 0;
  for (const int number : {SIGKILL, SIGTERM, SIGALRM, SIGUSR1, SIGHUP}) {
    send(agent(++started), number);
  }
  EXPECT_GT(agent(started + 1), 0);
  EXPECT_THAT(log(), ElementsAre(locked, child_ended, child_ended, child_ended, child_ended, child_ended));
}

TEST_F(WatchdogTest, MissesNoEndOfAnAgentThatDiesAtOnce) {
  start([](AgentSettings* given) {
    struct stat so_far {};
    note(given, "deaths", "x");
    if (stat((std::string{given->service_id} + "/deaths").c_str(), &so_far) == 0 &&
        so_far.st_size < 2L * 200) {
      kill(getpid(), SIGKILL);
    }
  });
  EXPECT_EQ(end_status(), 0);
  EXPECT_EQ(noted("deaths").size(), 200U);
}

TEST_F(WatchdogTest, AHangupReplacesAnAgentThatEndsByItself) {
  start(orderly_agent);
  const pid_t first = agent(1);
  send(watchdog, SIGHUP);
  EXPECT_NE(agent(2), first);
  EXPECT_THAT(log(), ElementsAre(locked, "DEBUG: received sighup.", child_ended));
  EXPECT_THAT(noted("signals"), ElementsAre(std::to_string(SIGTERM)));
}

TEST_F(WatchdogTest, OneHangupCountsForOneRestart) {
  start(orderly_agent);
  EXPECT_GT(agent(1), 0);
  send(watchdog, SIGHUP);
  send(agent(2), SIGTERM);
  EXPECT_EQ(end_status(), 0);
  EXPECT_THAT(log(),
              ElementsAre(locked, "DEBUG: received sighup.", child_ended, child_ended, ended_normally));
}

TEST_F(WatchdogTest, AHangupOfTheAgentReachesIt) {
  start([](AgentSettings* given) {
    note_start(given);
    if (getppid() == watchdog_pid()) kill(watchdog_pid(), SIGHUP);
    sleep_forever();
  });
  EXPECT_GT(agent(3), 0);
}

TEST_F(WatchdogTest, PassesUserSignalsOn) {
  start(orderly_agent);
  EXPECT_GT(agent(1), 0);
  send(watchdog, SIGUSR1);
  EXPECT_TRUE(signals_arrive({std::to_string(SIGUSR1)}));
  send(watchdog, SIGUSR2);
  EXPECT_TRUE(signals_arrive({std::to_string(SIGUSR1), std::to_string(SIGUSR2)}));
  EXPECT_THAT(log(), ElementsAre(locked));
}

TEST_F(WatchdogTest, PassesSigtermOnAndEnds) {
  start(orderly_agent);
  EXPECT_GT(agent(1), 0);
  send(watchdog, SIGTERM);
  EXPECT_EQ(end_status(), 0);
  EXPECT_THAT(log(), ElementsAre(locked, "INFO: Received sig_term.", "DEBUG: Send sig_term."));
  EXPECT_TRUE(std::filesystem::exists(pid_file));
}

TEST_F(WatchdogTest, DoesNotWaitForTheAgentAfterSigterm) {
  start(stubborn_agent);
  const pid_t stubborn = agent(1);
  send(watchdog, SIGTERM);
  EXPECT_TRUE(ended());
  EXPECT_TRUE(signals_arrive({std::to_string(SIGTERM)}));
  EXPECT_EQ(kill(stubborn, 0), 0);
}

TEST_F(WatchdogTest, ServesSeveralSignalsThatArriveAtOnce) {
  start(orderly_agent);
  const pid_t first = agent(1);
  halt(watchdog);
  halt(first);
  for (const int number : {SIGUSR2, SIGUSR1, SIGHUP, SIGCHLD, SIGPIPE}) {
    send(watchdog, number);
  }
  send(watchdog, SIGCONT);
  EXPECT_TRUE(nothing_pending());
  EXPECT_EQ(noted("start").size(), 1U);
  send(first, SIGCONT);
  EXPECT_NE(agent(2), first);
  EXPECT_THAT(noted("signals"),
              ElementsAre(std::to_string(SIGUSR1), std::to_string(SIGUSR2), std::to_string(SIGTERM)));
}

TEST_F(WatchdogTest, ASigtermTogetherWithTheAgentsEndEndsIt) {
  start(orderly_agent);
  const pid_t first = agent(1);
  halt(watchdog);
  send(first, SIGKILL);
  send(watchdog, SIGTERM);
  send(watchdog, SIGCONT);
  EXPECT_EQ(end_status(), 0);
  EXPECT_EQ(noted("start").size(), 1U);
}

TEST_F(WatchdogTest, AHangupTogetherWithTheAgentsEndRestartsIt) {
  start(orderly_agent);
  const pid_t first = agent(1);
  halt(watchdog);
  send(first, SIGTERM);
  send(watchdog, SIGHUP);
  send(watchdog, SIGCONT);
  EXPECT_NE(agent(2), first);
  EXPECT_THAT(log(), ElementsAre(locked, "DEBUG: received sighup.", child_ended));
}

TEST_F(WatchdogTest, ASigchldSentByHandChangesNothing) {
  start(orderly_agent);
  EXPECT_GT(agent(1), 0);
  send(watchdog, SIGCHLD);
  EXPECT_TRUE(nothing_pending());
  send(watchdog, SIGPIPE);
  send(watchdog, SIGUSR1);
  EXPECT_TRUE(signals_arrive({std::to_string(SIGUSR1)}));
  EXPECT_THAT(log(), ElementsAre(locked));
}

TEST_F(WatchdogTest, AStoppedAgentCountsAsRunning) {
  start(orderly_agent);
  const pid_t first = agent(1);
  halt(first);
  send(watchdog, SIGUSR1);
  send(first, SIGCONT);
  EXPECT_TRUE(signals_arrive({std::to_string(SIGUSR1)}));
  EXPECT_THAT(log(), ElementsAre(locked));
}

TEST_F(WatchdogTest, TheAgentStartsWithAnEmptyMaskAndDefaultActions) {
  const auto ignore_and_block = [] {
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_SETMASK, &all, nullptr);
    std::signal(SIGHUP, SIG_IGN);
    std::signal(SIGCHLD, SIG_IGN);
  };
  start(
      [](AgentSettings* given) {
        sigset_t mask;
        sigprocmask(SIG_SETMASK, nullptr, &mask);
        note(given, "mask", sigisemptyset(&mask) != 0 ? "empty" : "not empty");
        for (const int number : {SIGPIPE, SIGHUP, SIGCHLD, SIGUSR1, SIGUSR2, SIGTERM}) {
          struct sigaction action {};
          sigaction(number, nullptr, &action);
          if (action.sa_handler != SIG_DFL) note(given, "changed", std::to_string(number));
        }
      },
      ignore_and_block);
  EXPECT_EQ(end_status(), 0);
  EXPECT_THAT(noted("mask"), ElementsAre("empty"));
  EXPECT_THAT(noted("changed"), ElementsAre());
}

TEST_F(WatchdogTest, TheAgentKnowsItsWatchdog) {
  EXPECT_EQ(watchdog_pid(), 0);
  start([](AgentSettings* given) { note(given, "watchdog", std::to_string(watchdog_pid())); });
  const std::string expected = std::to_string(watchdog);
  EXPECT_EQ(end_status(), 0);
  EXPECT_THAT(noted("watchdog"), ElementsAre(expected));
}

TEST_F(WatchdogTest, TheAgentOutlivesAWatchdogThatIsKilled) {
  start(stubborn_agent);
  const pid_t survivor = agent(1);
  send(watchdog, SIGKILL);
  EXPECT_TRUE(ended());
  send(survivor, SIGTERM);
  EXPECT_TRUE(signals_arrive({std::to_string(SIGTERM)}));
}

}  // namespace
