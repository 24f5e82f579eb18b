#include "core/orvel_signals.h"

#include "cloud/discovery.h"
#include "cloud/logic_state.h"
#include "control/control_listener.h"
#include "core/config.h"
#include "core/exit_process.h"
#include "core/log.h"
#include "core/owned.h"
#include "core/watchdog.h"
#include "delivery/message_sender_delivery.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

constinit termination_state termination{};

namespace {

constexpr char log_source[] = "orvel";

void wake_on_user_signal();
void report_state();
void terminate_agent();
void pass_hangup_to_watchdog();

struct handled_signal {
  int number;
  int flags;
  bool watchdog_only;
  void (*action)();
};

// In the order in which the dispositions are installed.
constexpr handled_signal handled[] = {
    {SIGUSR1, 0, false, wake_on_user_signal},
    {SIGUSR2, 0, false, report_state},
    {SIGCHLD, SA_RESTART | SA_NOCLDSTOP, false, reap_children},
    {SIGTERM, 0, false, terminate_agent},
    {SIGHUP, 0, true, pass_hangup_to_watchdog},
};

// `arrived` holds a flag for each handled signal, set by its handler and cleared when its action begins. The bytes in
// the pipe tell the order; the flags stand when the pipe was full.
struct signal_state {
  int read_end = -1;
  int write_end = -1;
  std::atomic<int> arrived[std::size(handled)];
};
constinit signal_state signals{};

constexpr unsigned char main_ended = 0xff;

void wake_on_user_signal() {
  first_user_signal_action(SIGUSR1);  // model: user_signal.wake
}

void report_state() {
  log_debug("sig_usr2 handler.\n");
  request_report();
}

void terminate_agent() {
  config_set("q_agent_connected", "0");
  log_status("disconnected\n");
  config_set("q_agent_pid", "0");
  log_debug("received sigterm\n");
  if (termination.pipe_ready == 0) {  // model: terminate.at_once
    finish_state_record();            // start-up may be about to fill it
    exit_process(0);
  }
  termination.sigterm_received = 1;  // model: terminate.note
  // model: terminate.choose
  const char command = termination.main_waiting != 0 ? control_end_thread : control_exit_process;
  if (write(termination.control_pipe, &command, sizeof command) != sizeof command) {  // model: terminate.tell
    log_error("write() error %d in sig term handler. Possibly process won't be terminated\n", errno);
  }
}

void pass_hangup_to_watchdog() {
  const pid_t watchdog = watchdog_pid();
  if (watchdog > 0 && getppid() == watchdog) kill(watchdog, SIGHUP);  // model: hangup.pass
}

// A signal that this process sends to one of its threads only breaks that thread's blocking call.
bool only_breaks_a_call(const siginfo_t* info) {
  return info->si_signo == SIGUSR1 && info->si_code == SI_TKILL && info->si_pid == getpid();
}

void note_signal(int number, siginfo_t* info, void* /*context*/) {
  if (only_breaks_a_call(info)) return;
  const int saved_errno = errno;
  for (size_t i = 0; i < std::size(handled); ++i) {
    if (handled[i].number != number) continue;
    signals.arrived[i] = 1;  // model: note.flag
    // A full pipe loses nothing: its reader looks at the flags afterwards.
    const auto order = static_cast<unsigned char>(i);
    // model: note.byte
    [[maybe_unused]] const ssize_t written = write(signals.write_end, &order, sizeof order);
  }
  errno = saved_errno;
}

int install(int number, int flags, bool ignored) {
  struct sigaction disposition {};
  sigemptyset(&disposition.sa_mask);
  if (ignored) {
    disposition.sa_handler = SIG_IGN;
  } else {
    disposition.sa_sigaction = note_signal;
    disposition.sa_flags = flags | SA_SIGINFO;
  }
  return sigaction(number, &disposition, nullptr);
}

void carry_out(size_t index) {
  if (signals.arrived[index].exchange(0) != 0) handled[index].action();  // model: carry_out.take
}

int open_signal_pipe() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) return -1;
  signals.read_end = ends[0];
  signals.write_end = ends[1];
  return 0;
}

// Lets signals in until there is something to read.
void wait_for_signal() {
  sigset_t all_let_in;
  sigemptyset(&all_let_in);
  pollfd watched{signals.read_end, POLLIN, 0};
  ppoll(&watched, 1, nullptr, &all_let_in);  // model: serve.wait
}

}  // namespace

int install_signal_handlers(bool under_watchdog) {
  if (open_signal_pipe() != 0) return -1;  // model: install.pipe
  block_handled_signals();                 // model: install.block
  if (install(SIGPIPE, 0, true) != 0) return -1;
  for (const handled_signal& signal : handled) {
    if (signal.watchdog_only && !under_watchdog) continue;
    // model: install.handlers, agent.handlers
    if (install(signal.number, signal.flags, false) != 0) return -1;
  }
  return 0;
}

void serve_signals() {
  for (;;) {
    wait_for_signal();
    unsigned char order[64];
    const ssize_t count = read(signals.read_end, order, sizeof order);  // model: serve.read
    for (ssize_t i = 0; i < count; ++i) {
      if (order[i] == main_ended) return;
      carry_out(order[i]);  // model: serve.in_order
    }
    for (size_t i = 0; i < std::size(handled); ++i) {
      carry_out(i);  // model: serve.flags
    }
  }
}

void announce_main_end() {
  // The pipe's reader is the thread that waits for this byte; while the pipe is full it is busy emptying it.
  while (write(signals.write_end, &main_ended, sizeof main_ended) < 0 && errno == EAGAIN) {
    pollfd room{signals.write_end, POLLOUT, 0};
    poll(&room, 1, -1);
  }
}

void block_handled_signals() {
  sigset_t blocked;
  sigemptyset(&blocked);
  for (const handled_signal& signal : handled) {
    sigaddset(&blocked, signal.number);
  }
  pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
}

int clear_thread_signal_mask() {
  sigset_t none;
  sigemptyset(&none);
  return pthread_sigmask(SIG_SETMASK, &none, nullptr);
}
