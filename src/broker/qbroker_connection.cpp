#include "broker/qbroker_connection.h"

#include "broker/qbroker_connection_commands.h"
#include "broker/qbroker_connection_session.h"
#include "cloud/http_helper.h"
#include "cloud/logic.h"
#include "core/daemon.h"
#include "core/log.h"
#include "core/sync.h"

#include <csignal>
#include <ctime>
#include <pthread.h>

namespace {

constexpr char log_source[] = "qbroker_connection";

// The one broker thread. `lock` serialises start and stop and is held while the thread is joined; `end_lock` guards
// the mark that the thread leaves when it is done.
struct session_state {
  sync_mutex lock{lock_rank::broker_session};
  pthread_t thread GUARDED_BY(lock) = 0;
  bool has_thread GUARDED_BY(lock) = false;

  sync_mutex end_lock{lock_rank::leaf};
  sync_condition end_reached;
  bool ended GUARDED_BY(end_lock) = false;
};
constinit session_state session{};

// Blocked calls are broken this often while a stop waits: a signal that comes just before the call is no use.
constexpr long break_calls_every_ns = 10'000'000;

void allow_stop_signal() {
  sigset_t user_signal;
  sigemptyset(&user_signal);
  sigaddset(&user_signal, SIGUSR1);
  if (pthread_sigmask(SIG_UNBLOCK, &user_signal, nullptr) != 0) log_error("Cannot set pthread_sigmask!");
}

void* qbroker_connection_thread(void* settings) {
  log_debug("enter qbroker_connection_thread\n");
  allow_stop_signal();                // model: thread.let_signal_in
  wait_only_while(&keep_connection);  // model: thread.tie_waits
  qbroker_connect(static_cast<AgentSettings*>(settings));
  log_debug("exiting qbroker_connection_thread\n");
  const scoped_lock lock{session.end_lock};
  session.ended = true;  // model: thread.end
  session.end_reached.signal();
  return nullptr;
}

timespec next_break() {
  timespec moment{};
  clock_gettime(CLOCK_MONOTONIC, &moment);
  moment.tv_nsec += break_calls_every_ns;
  if (moment.tv_nsec >= 1'000'000'000) {
    moment.tv_nsec -= 1'000'000'000;
    ++moment.tv_sec;
  }
  return moment;
}

// Gets the thread out of whatever it waits for: sleeps and HTTP waits by their conditions, system calls by a signal.
void join_broker_thread(pthread_t thread) {
  wake_sleepers();      // model: stop.wake_sleepers
  wake_http_waiters();  // model: stop.wake_http
  {
    const scoped_lock lock{session.end_lock};
    while (!session.ended) {                                           // model: stop.look
      pthread_kill(thread, SIGUSR1);                                   // model: stop.signal
      session.end_reached.wait_until(session.end_lock, next_break());  // model: stop.wait
    }
  }
  pthread_join(thread, nullptr);  // model: stop.join
}

int create_broker_thread(AgentSettings* settings) REQUIRES(session.lock) {
  {
    const scoped_lock lock{session.end_lock};
    session.ended = false;  // model: start.clear_end
  }
  // model: start.create
  const int error = pthread_create(&session.thread, nullptr, qbroker_connection_thread, settings);
  if (error != 0) {
    log_error("Failed to create qbroker thread ret=%d.\n", error);
    return -1;
  }
  session.has_thread = true;
  return 0;
}

}  // namespace

int start_broker_thread(AgentSettings* settings) {
  const scoped_lock lock{session.lock};  // model: start.lock
  if (session.has_thread) {              // model: start.test
    log_warning("qbroker thread already started.\n");
    return -1;
  }
  keep_connection = 1;  // model: start.keep
  log_debug("starting qbroker thread.\n");
  if (create_broker_thread(settings) != 0) {
    keep_connection = 0;
    return -1;
  }
  log_debug("qbroker thread started.\n");
  return 0;
}

int stop_broker_thread() {
  const scoped_lock lock{session.lock};  // model: stop.lock
  keep_connection = 0;                   // model: stop.clear
  log_debug("stoping qbroker thread.\n");
  if (session.has_thread) {  // model: stop.test
    join_broker_thread(session.thread);
    session.has_thread = false;  // model: stop.forget
  } else {
    log_warning("Trying to stop stopped/uncreated qbroker thread.\n");
  }
  log_debug("qbroker thread stoped.\n");
  return 0;
}

int stop_broker_thread_unless_forced() {
  if (force_connection() == 1) return -1;
  return stop_broker_thread();
}
