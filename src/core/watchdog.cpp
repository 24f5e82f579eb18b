#include "core/watchdog.h"

#include "core/daemon.h"
#include "core/exit_process.h"
#include "core/log.h"

#include <cerrno>
#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr char log_source[] = "watchdog";

// Set once in the child, before it has a second thread.
constinit pid_t parent_watchdog = 0;

// What the watchdog waits for. It keeps these signals blocked and takes them one by one with sigwait(), so that
// none gets lost between two children and every action runs as ordinary code.
struct watched_signal {
  int number;
  int flags;
};
constexpr watched_signal watched_signals[] = {
    {SIGHUP, 0}, {SIGCHLD, SA_RESTART | SA_NOCLDSTOP}, {SIGUSR1, 0}, {SIGUSR2, 0}, {SIGTERM, 0},
};

// Never runs, as the signals stay blocked. But a system may drop a blocked signal whose action is to ignore it,
// so each one needs a handler.
void unused_handler(int) {}

sigset_t watched_set() {
  sigset_t set;
  sigemptyset(&set);
  for (const watched_signal& watched : watched_signals) {
    sigaddset(&set, watched.number);
  }
  return set;
}

void take_over_signals() {
  const sigset_t set = watched_set();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);  // model: takeover.block
  std::signal(SIGPIPE, SIG_IGN);
  for (const watched_signal& watched : watched_signals) {
    struct sigaction action {};
    action.sa_handler = unused_handler;
    action.sa_flags = watched.flags;
    sigaction(watched.number, &action, nullptr);  // model: takeover.handlers
  }
}

// In the child: as if the watchdog had never touched them.
void restore_signals() {
  std::signal(SIGPIPE, SIG_DFL);
  for (const watched_signal& watched : watched_signals) {
    std::signal(watched.number, SIG_DFL);  // model: child.defaults
  }
  sigset_t none;
  sigemptyset(&none);
  pthread_sigmask(SIG_SETMASK, &none, nullptr);  // model: child.unblock
}

// The id of a new child that runs the agent.
pid_t start_agent(void (*run_agent)(AgentSettings*), AgentSettings* settings) {
  const pid_t watchdog = getpid();
  const pid_t child = fork();  // model: start_agent.fork
  if (child == -1) {
    log_error("fork(). errno: %d.\n", errno);
    exit_process(1);
  }
  if (child != 0) return child;

  parent_watchdog = watchdog;
  restore_signals();
  log_after_fork();
  run_agent(settings);
  exit_process(0);
}

// The agent's own end is not waited for, and the pid file stays: the next start finds it stale.
[[noreturn]] void terminate(pid_t agent) {
  log_info("Received sig_term.\n");
  kill(agent, SIGTERM);  // model: watch.terminate
  log_debug("Send sig_term.\n");
  exit_process(0);
}

// True when the agent is gone and a new one is due, false while it still runs. Ends the process when the agent
// ended by itself.
bool restart_due(pid_t agent, bool restart_requested) {
  int status = 0;
  // model: watch.reap, watch.still_there
  if (waitpid(agent, &status, WNOHANG) != agent) return false;  // somebody sent SIGCHLD by hand
  log_debug("Received sigchld in watchdog.\n");
  if (!WIFSIGNALED(status) && !restart_requested) {
    log_info("Child exit normally.\n");
    exit_process(0);  // model: watch.end
  }
  return true;  // model: watch.again
}

// Serves signals until a new agent is due. The agent is not reaped before the last line of that, so that a
// signal sent to it can't reach another process.
void watch_agent(pid_t agent) {
  const sigset_t set = watched_set();
  bool restart_requested = false;
  for (;;) {
    int number = 0;
    sigwait(&set, &number);  // model: watch.wait
    switch (number) {
    case SIGHUP:
      log_debug("received sighup.\n");
      restart_requested = true;  // model: watch.restart_requested
      kill(agent, SIGTERM);      // model: watch.hang_up
      break;
    case SIGCHLD:
      if (restart_due(agent, restart_requested)) return;
      break;
    case SIGTERM:
      terminate(agent);
    default:
      // model: watch.pass_on
      kill(agent, number);  // SIGUSR1, SIGUSR2
    }
  }
}

}  // namespace

void run_watchdog(const char* pid_file, void (*run_agent)(AgentSettings*), AgentSettings* settings) {
  if (lock_pid_file(pid_file) == -1) {
    log_error("failed to lock the watchdog pid file.\n");
    exit_process(1);
  }
  log_info("orvel locked the watchdog pid file.\n");
  take_over_signals();
  for (;;) {
    watch_agent(start_agent(run_agent, settings));
  }
}

pid_t watchdog_pid() {
  return parent_watchdog;
}
