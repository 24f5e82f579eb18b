#include "core/orvel_signals.h"

#include "cloud/logic_state.h"
#include "core/daemon.h"

#include "logging_child.h"
#include "process_limits.h"
#include "settings_file.h"

#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <thread>

using testing::HasSubstr;
using testing::Not;

namespace {

// Signals that this process sends itself arrive at once from now on, as in the first thread while it waits.
void let_signals_in() {
  sigset_t none;
  sigemptyset(&none);
  pthread_sigmask(SIG_SETMASK, &none, nullptr);
}

// Each test runs in a child process: dispositions, masks and the exit stay there.
class SignalsTest : public testing::Test {
protected:
  SignalsTest() { settings_file::fill({{"q_agent_connected", "1"}, {"q_agent_pid", "7"}}); }

  // What becomes of a process that is prepared by `prepare`, gets the signals and serves them.
  template <typename Prepare> static child_outcome served(const std::vector<int>& numbers, Prepare prepare) {
    return run_logging_child([&] {
      if (install_signal_handlers(false) != 0) return 90;
      prepare();
      let_signals_in();
      for (const int number : numbers) {
        kill(getpid(), number);
      }
      announce_main_end();
      serve_signals();
      return 42;
    });
  }
  static child_outcome served(const std::vector<int>& numbers) {
    return served(numbers, [] {});
  }

  // Start-up as far as the control pipe; its read end.
  static int open_control_pipe() {
    int ends[2];
    if (pipe2(ends, O_NONBLOCK) != 0) _exit(91);
    termination.control_pipe = ends[1];
    termination.pipe_ready = 1;
    return ends[0];
  }
};

TEST_F(SignalsTest, TerminationBeforeTheControlPipeEndsTheProcessAtOnce) {
  const child_outcome child = served({SIGTERM});
  EXPECT_EQ(child.status, 0) << child.output;
  EXPECT_THAT(child.output, HasSubstr("orvel: "));
  EXPECT_THAT(child.output, HasSubstr("DEBUG: received sigterm\n"));
  EXPECT_EQ(settings_file::value("q_agent_connected"), "0");
  EXPECT_EQ(settings_file::value("q_agent_pid"), "0");
}

TEST_F(SignalsTest, TerminationTellsTheControlListenerHowFarStartUpIs) {
  for (const int waiting : {0, 1}) {
    const child_outcome child = run_logging_child([&] {
      if (install_signal_handlers(false) != 0) return 90;
      const int read_end = open_control_pipe();
      termination.main_waiting = waiting;
      let_signals_in();
      kill(getpid(), SIGTERM);
      announce_main_end();
      serve_signals();
      char byte = 0;
      if (read(read_end, &byte, 1) != 1 || termination.sigterm_received != 1) return 92;
      return static_cast<int>(byte);
    });
    EXPECT_EQ(child.status, waiting == 1 ? 's' : 't') << child.output;
  }
}

TEST_F(SignalsTest, ATerminationThatCanNotBePassedOnIsLogged) {
  const child_outcome child = served({SIGTERM}, [] {
    termination.control_pipe = -1;
    termination.pipe_ready = 1;
  });
  EXPECT_EQ(child.status, 42) << child.output;
  EXPECT_THAT(child.output,
              HasSubstr("write() error 9 in sig term handler. Possibly process won't be terminated\n"));
}

TEST_F(SignalsTest, TheSecondUserSignalReportsTheState) {
  const child_outcome child = served({SIGUSR2}, [] { orvel_state_init(0); });
  EXPECT_EQ(child.status, 42);
  EXPECT_THAT(child.output, HasSubstr("orvel: "));
  EXPECT_THAT(child.output, HasSubstr("DEBUG: sig_usr2 handler.\n"));
  EXPECT_THAT(child.output, HasSubstr("\"event\":\t1,"));
}

TEST_F(SignalsTest, BeforeThereIsAStateTheSecondUserSignalReportsNothing) {
  const child_outcome child = served({SIGUSR2});
  EXPECT_EQ(child.status, 42);
  EXPECT_THAT(child.output, HasSubstr("DEBUG: sig_usr2 handler.\n"));
  EXPECT_THAT(child.output, Not(HasSubstr("connected")));
}

TEST_F(SignalsTest, TheFirstUserSignalEndsTheSleeps) {
  const child_outcome child = run_logging_child([] {
    if (install_signal_handlers(false) != 0) return 90;
    std::atomic<bool> awake{false};
    std::thread sleeper{[&] {
      sleep_for(100'000);
      awake = true;
      announce_main_end();
    }};
    std::thread signaller{[&] {
      while (!awake) {
        kill(getpid(), SIGUSR1);  // one that comes just before the sleep is lost
        std::this_thread::sleep_for(std::chrono::milliseconds{5});
      }
    }};
    serve_signals();
    sleeper.join();
    signaller.join();
    return 42;
  });
  EXPECT_EQ(child.status, 42) << child.output;
}

TEST_F(SignalsTest, ASignalOfThisProcessToAThreadOnlyBreaksItsCall) {
  const child_outcome child = run_logging_child([] {
    if (install_signal_handlers(false) != 0) return 90;
    let_signals_in();
    errno = 77;
    pthread_kill(pthread_self(), SIGUSR1);
    pthread_kill(pthread_self(), SIGUSR2);
    if (errno != 77) return 93;
    announce_main_end();
    serve_signals();
    return 42;
  });
  EXPECT_EQ(child.status, 42) << child.output;
  EXPECT_THAT(child.output, HasSubstr("sig_usr2 handler.\n"));  // only the first one is used between threads
}

TEST_F(SignalsTest, AFullPipeLosesNoKindOfSignal) {
  const child_outcome child = run_logging_child([] {
    if (install_signal_handlers(false) != 0) return 90;
    let_signals_in();
    for (int i = 0; i < 70'000; ++i) {
      kill(getpid(), SIGUSR1);
    }
    kill(getpid(), SIGUSR2);
    std::thread ends_it{[] { announce_main_end(); }};
    serve_signals();
    ends_it.join();
    return 42;
  });
  EXPECT_EQ(child.status, 42);
  EXPECT_THAT(child.output, HasSubstr("sig_usr2 handler.\n"));
}

TEST_F(SignalsTest, DispositionsAreAsTheyShouldBe) {
  for (const bool under_watchdog : {false, true}) {
    const child_outcome child = run_logging_child([&] {
      signal(SIGHUP, SIG_DFL);
      if (install_signal_handlers(under_watchdog) != 0) return 90;
      struct sigaction found {};
      sigaction(SIGPIPE, nullptr, &found);
      if (found.sa_handler != SIG_IGN) return 1;
      for (const int number : {SIGUSR1, SIGUSR2, SIGTERM}) {
        sigaction(number, nullptr, &found);
        if ((found.sa_flags & (SA_RESTART | SA_NOCLDSTOP)) != 0 || sigismember(&found.sa_mask, SIGUSR1) != 0)
          return 2;
      }
      sigaction(SIGCHLD, nullptr, &found);
      if ((found.sa_flags & SA_RESTART) == 0 || (found.sa_flags & SA_NOCLDSTOP) == 0) return 3;
      sigaction(SIGHUP, nullptr, &found);
      return (found.sa_handler != SIG_DFL) == under_watchdog ? 42 : 4;
    });
    EXPECT_EQ(child.status, 42);
  }
}

TEST_F(SignalsTest, InstallingFailsWithoutDescriptors) {
  const child_outcome child = run_logging_child([] {
    set_limit(RLIMIT_NOFILE, 0);
    return install_signal_handlers(false) == -1 ? 42 : 1;
  });
  EXPECT_EQ(child.status, 42);
  EXPECT_THAT(child.output, Not(HasSubstr("signal")));  // its caller says so
}

TEST(SignalMaskTest, ClearingLetsEverySignalThrough) {
  sigset_t before;
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR2);
  pthread_sigmask(SIG_BLOCK, &blocked, &before);

  EXPECT_EQ(clear_thread_signal_mask(), 0);
  pthread_sigmask(SIG_SETMASK, &before, &blocked);
  EXPECT_EQ(sigismember(&blocked, SIGUSR2), 0);
}

}  // namespace
