#include "cloud/discovery.h"

#include "broker/qbroker_connection.h"
#include "cloud/logic.h"
#include "core/daemon.h"
#include "core/log.h"
#include "core/sync.h"

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <pthread.h>
#include <sys/sysinfo.h>

namespace {

constexpr char log_source[] = "discovery";

// The discovery period. A thread exists from a push until the next push after the period's end, which joins it.
struct discovery_state {
  sync_mutex lock{lock_rank::discovery};
  int64_t deadline GUARDED_BY(lock) = 0;  // uptime in seconds; 0: no period is open
  pthread_t thread GUARDED_BY(lock) = 0;
  bool has_thread GUARDED_BY(lock) = false;
};
constinit discovery_state discovery{};

int read_uptime(int64_t* uptime) {
  struct sysinfo info {};
  *uptime = 0;
  if (sysinfo(&info) != 0) return -1;
  *uptime = info.uptime;
  return 0;
}

void sleep_in_period(int64_t seconds) {
  log_debug("Sleep in discovery thread for %ld seconds.\n", static_cast<long>(seconds));
  sleep_for(static_cast<int>(std::min<int64_t>(seconds, INT32_MAX)));
}

// Watches the claim status until the device is claimed (1) or the deadline has passed (0). The lock is held on entry
// and on return, and given back for each sleep and request.
int watch_period(AgentSettings* settings) REQUIRES(discovery.lock) {
  int64_t uptime = 0;
  read_uptime(&uptime);
  int64_t remaining = discovery.deadline - uptime;
  while (remaining > 0) {
    discovery.lock.unlock();
    sleep_in_period(remaining);
    const int claimed = wait_for_claim_status(settings);
    discovery.lock.lock();
    if (claimed == 1) return 1;
    // Without an uptime the whole deadline is slept again: better a long period than one that is cut short.
    remaining = read_uptime(&uptime) == 0 ? discovery.deadline - uptime : discovery.deadline;
  }
  return 0;
}

void* discovery_thread(void* argument) {
  auto* settings = static_cast<AgentSettings*>(argument);
  {
    const scoped_lock lock{discovery.lock};  // model: period.lock
    const int claimed = watch_period(settings);
    if (claimed == 0) stop_broker_thread_unless_forced();  // model: period.stop
    discovery.deadline = 0;
  }
  log_debug("discovery thread ended.\n");
  return nullptr;
}

void join_ended_thread() {
  pthread_t ended = 0;
  {
    const scoped_lock lock{discovery.lock};
    if (discovery.deadline != 0 || !discovery.has_thread) return;
    ended = discovery.thread;
    discovery.has_thread = false;
  }
  log_debug("before join discovery thread.\n");
  pthread_join(ended, nullptr);
  log_debug("after  join discovery thread.\n");
}

// Opens the period, or prolongs an open one; it is never cut short. 0, or -1 when the thread of the last period ended
// just now and must be joined first.
int open_period(int64_t deadline, AgentSettings* settings) {
  const scoped_lock lock{discovery.lock};
  if (discovery.has_thread && discovery.deadline == 0) return -1;
  if (discovery.deadline < deadline) {
    log_debug("Setting new discovery time.\n");
    discovery.deadline = deadline;
  }
  if (discovery.has_thread) return 0;
  const int error = pthread_create(&discovery.thread, nullptr, discovery_thread, settings);
  if (error != 0) {
    log_warning("Failed to create discovery thread ret=%d.\n", error);
    discovery.deadline = 0;
    return 0;
  }
  discovery.has_thread = true;
  start_broker_thread(settings);
  return 0;
}

}  // namespace

int push_discovery(const DiscoveryParams* params, AgentSettings* settings) {
  log_debug("pushing discovery.\n");
  if (params == nullptr) {
    log_warning("If you want to make discovery request, please provide service id\n");
    return discovery_without_request;
  }
  const int result = discover(settings, params);
  join_ended_thread();
  if (result != 0) {
    log_debug("Failed to send discovery.\n");
    return result;
  }
  const int64_t period = params->discovery_time >= 1 ? params->discovery_time : settings->claim_check;
  const int64_t deadline = system_uptime() + period;
  while (open_period(deadline, settings) != 0) {
    join_ended_thread();
  }
  log_debug("discovery pushed.\n");
  return result;
}

int discovery_active() {
  int64_t uptime = 0;
  read_uptime(&uptime);
  const scoped_lock lock{discovery.lock};
  return uptime < discovery.deadline ? 1 : 0;
}

long system_uptime() {
  int64_t uptime = 0;
  read_uptime(&uptime);
  return static_cast<long>(uptime);
}

void first_user_signal_action(int signal_number) {
  if (signal_number == SIGUSR1) interrupt_sleepers();
}
