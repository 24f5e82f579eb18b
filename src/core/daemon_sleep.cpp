#include "core/daemon.h"

#include "core/log.h"
#include "core/sync.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <limits>
#include <unistd.h>

namespace {

constexpr char log_source[] = "daemon";

// The sleep gate. The counters take the place of a flag that each sleeper would have to clear: a sleeper waits
// for a change, so one wake-up ends every wait that stands and no sleeper can swallow another's.
struct sleep_gate {
  sync_mutex lock{lock_rank::leaf};
  sync_condition changed;
  uint32_t wakeups GUARDED_BY(lock) = 0;        // wake_sleepers() and interrupt_sleepers()
  uint32_t interruptions GUARDED_BY(lock) = 0;  // interrupt_sleepers() alone
};
constinit sleep_gate gate{};

// The flag that the calling thread's waits are tied to.
thread_local constinit const std::atomic<int>* keep_going = nullptr;
static_assert(std::atomic<int>::is_always_lock_free);

// `seconds` from `now`, or the latest time there is: on devices with a 32-bit time_t the sum may not fit.
timespec deadline_after(timespec now, int seconds) {
  constexpr time_t latest = std::numeric_limits<time_t>::max();
  now.tv_sec = seconds < latest - now.tv_sec ? now.tv_sec + seconds : latest;
  return now;
}

}  // namespace

void wait_only_while(const std::atomic<int>* flag) {
  keep_going = flag;
}

bool thread_may_wait() {
  return keep_going == nullptr || keep_going->load() != 0;
}

void sleep_for(int seconds) {
  const int duration = std::max(seconds, 0);
  timespec now{};
  if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) {
    log_error("gettimeofday()\n");
    sleep(static_cast<unsigned>(duration));
    return;
  }
  const timespec deadline = deadline_after(now, duration);

  const scoped_lock lock{gate.lock};                                 // model: sleep.lock
  const uint32_t seen = gate.wakeups;                                // model: sleep.seen
  while (gate.wakeups == seen && thread_may_wait()) {                // model: sleep.test
    const int error = gate.changed.wait_until(gate.lock, deadline);  // model: sleep.wait
    if (error == 0) continue;
    if (error != ETIMEDOUT) log_debug("pthread_cond_timedwait failed with error %d\n", error);
    break;
  }
  log_debug("exit sleep_for %d secs\n", seconds);
}

void wait_for_wakeup(const std::atomic<int>* reason) {
  const scoped_lock lock{gate.lock};   // model: wakeup.lock
  const uint32_t seen = gate.wakeups;  // model: wakeup.seen
  // model: wakeup.test
  while (gate.wakeups == seen && thread_may_wait() && (reason == nullptr || reason->load() != 0)) {
    const int error = gate.changed.wait(gate.lock);  // model: wakeup.wait
    if (error == 0) continue;
    if (error != ETIMEDOUT) log_warning("pthread_cond_wait failed with error %d\n", error);
    break;
  }
}

void wake_sleepers() {
  const scoped_lock lock{gate.lock};  // model: wake.lock
  ++gate.wakeups;                     // model: wake.count
  gate.changed.broadcast();           // model: wake.broadcast
}

void interrupt_sleepers() {
  const scoped_lock lock{gate.lock};  // model: interrupt.lock
  ++gate.wakeups;
  ++gate.interruptions;      // model: interrupt.count
  gate.changed.broadcast();  // model: interrupt.broadcast
}

void sleep_forever() {
  for (;;) {
    sleep(1800);
  }
}

void sleep_forever_interruptable() {
  {
    const scoped_lock lock{gate.lock};
    const uint32_t seen = gate.interruptions;
    while (gate.interruptions == seen && thread_may_wait()) {
      if (gate.changed.wait(gate.lock) != 0) break;
    }
  }
  log_debug("Exiting sleeping sleep_forever_interruptable.\n");
}
