#include "core/daemon.h"

#include "log_capture.h"
#include "log_lines.h"
#include "logging_child.h"
#include "temp_folder.h"
#include "waiting.h"

#include <climits>
#include <csignal>
#include <ctime>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>

namespace {

using std::chrono::steady_clock;
using testing::ElementsAre;

// What the calling thread gets for the time: the clock's own result when null.
thread_local int (*clock_of_test)(timespec* now) = nullptr;

int failing_clock(timespec* /*now*/) {
  errno = EINVAL;
  return -1;
}

// No time at all, as its nanoseconds are out of range.
int broken_clock(timespec* now) {
  *now = {0, 2'000'000'000};
  return 0;
}

// A thread in a wait of the sleep gate.
class sleeper {
public:
  explicit sleeper(std::function<void()> wait) : thread_{[this, body = std::move(wait)] { run(body); }} {
    eventually([this] { return id_ != 0; });
  }
  ~sleeper() { thread_.join(); }
  sleeper(const sleeper&) = delete;
  sleeper& operator=(const sleeper&) = delete;

  [[nodiscard]] bool done() const { return done_ != 0; }

  // True while the thread's state is "sleeping".
  [[nodiscard]] bool asleep() const {
    const std::string status = read_text_file("/proc/self/task/" + std::to_string(id_) + "/stat");
    const size_t name_end = status.rfind(')');
    return !done() && name_end != std::string::npos && status.compare(name_end, 3, ") S") == 0;
  }

private:
  void run(const std::function<void()>& body) {
    id_ = gettid();
    body();
    done_ = 1;
  }

  std::atomic<int> id_{0};
  std::atomic<int> done_{0};
  std::thread thread_;
};

// Waits until every sleeper stands in its wait: asleep on a row of looks, so that no thread was only held up on
// its way there.
bool all_asleep(const std::vector<const sleeper*>& sleepers) {
  int row = 0;
  return eventually([&] {
    bool all = true;
    for (const sleeper* each : sleepers) {
      all = all && each->asleep();
    }
    row = all ? row + 1 : 0;
    return row >= 10;
  });
}

void sleep_long() {
  sleep_for(3600);
}
void wait_without_reason() {
  wait_for_wakeup(nullptr);
}

TEST(SleepForTest, LastsAtLeastItsTime) {
  const auto start = steady_clock::now();
  sleep_for(1);
  EXPECT_GE(steady_clock::now() - start, std::chrono::seconds{1});
}

TEST(SleepForTest, NoTimeReturnsAtOnceWithItsLine) {
  log_capture log;
  for (const int seconds : {0, -1, INT_MIN}) {
    sleep_for(seconds);
  }
  EXPECT_THAT(messages(log.text()),
              ElementsAre("DEBUG: exit sleep_for 0 secs", "DEBUG: exit sleep_for -1 secs",
                          "DEBUG: exit sleep_for -2147483648 secs"));
}

TEST(SleepForTest, TheLongestTimeIsNoShortOne) {
  log_capture log;
  {
    const sleeper one{[] { sleep_for(INT_MAX); }};
    EXPECT_TRUE(all_asleep({&one}));
    EXPECT_FALSE(one.done());
    wake_sleepers();
  }
  EXPECT_THAT(messages(log.text()), ElementsAre("DEBUG: exit sleep_for 2147483647 secs"));
}

TEST(SleepForTest, AnEarlierWakeUpDoesNotShortenIt) {
  wake_sleepers();
  interrupt_sleepers();
  const auto start = steady_clock::now();
  sleep_for(1);
  EXPECT_GE(steady_clock::now() - start, std::chrono::seconds{1});
}

TEST(SleepForTest, AFailedClockFallsBackToAPlainSleep) {
  log_capture log;
  const auto start = steady_clock::now();
  clock_of_test = failing_clock;
  sleep_for(1);
  sleep_for(-1);
  clock_of_test = nullptr;
  EXPECT_GE(steady_clock::now() - start, std::chrono::seconds{1});
  EXPECT_THAT(messages(log.text()), ElementsAre("WARNING: gettimeofday()", "WARNING: gettimeofday()"));
}

TEST(SleepForTest, AFailedWaitEndsIt) {
  log_capture log;
  clock_of_test = broken_clock;
  sleep_for(3600);
  clock_of_test = nullptr;
  EXPECT_THAT(messages(log.text()), ElementsAre("DEBUG: pthread_cond_timedwait failed with error 22",
                                                "DEBUG: exit sleep_for 3600 secs"));
}

TEST(WakeSleepersTest, OneCallEndsEveryPresentWait) {
  for (void (*wake)() : {wake_sleepers, interrupt_sleepers}) {
    const sleeper first{sleep_long};
    const sleeper second{sleep_long};
    const sleeper third{wait_without_reason};
    const sleeper fourth{wait_without_reason};
    EXPECT_TRUE(all_asleep({&first, &second, &third, &fourth}));
    wake();
    EXPECT_TRUE(eventually([&] { return first.done() && second.done() && third.done() && fourth.done(); }));
  }
}

TEST(WakeSleepersTest, ANewSleeperTakesNobodysWakeUp) {
  for (int round = 0; round < 50; ++round) {
    const sleeper present{sleep_long};
    EXPECT_TRUE(all_asleep({&present}));
    wake_sleepers();
    sleep_for(0);
    EXPECT_TRUE(eventually([&] { return present.done(); }));
  }
}

TEST(WaitForWakeupTest, ReturnsAtOnceWithoutItsReason) {
  const std::atomic<int> reason{0};
  wait_for_wakeup(&reason);
  EXPECT_EQ(reason, 0);
}

TEST(WaitForWakeupTest, EndsOnAWakeUpThoughItsReasonStands) {
  const std::atomic<int> reason{1};
  const sleeper one{[&] { wait_for_wakeup(&reason); }};
  EXPECT_TRUE(all_asleep({&one}));
  wake_sleepers();
  EXPECT_TRUE(eventually([&] { return one.done(); }));
}

TEST(WaitForWakeupTest, NeverMissesAReasonThatIsClearedBeforeTheWakeUp) {
  for (int round = 0; round < 2000; ++round) {
    std::atomic<int> reason{1};
    std::thread waiter{[&] {
      while (reason != 0) {
        wait_for_wakeup(&reason);
      }
    }};
    reason = 0;
    wake_sleepers();
    waiter.join();
  }
}

TEST(WaitOnlyWhileTest, AClearedFlagEndsEveryWaitAtOnce) {
  log_capture log;
  const std::atomic<int> keep_going{0};
  wait_only_while(&keep_going);
  EXPECT_FALSE(thread_may_wait());
  sleep_for(3600);
  wait_for_wakeup(nullptr);
  sleep_forever_interruptable();
  wait_only_while(nullptr);
  EXPECT_TRUE(thread_may_wait());
  EXPECT_THAT(messages(log.text()), ElementsAre("DEBUG: exit sleep_for 3600 secs",
                                                "DEBUG: Exiting sleeping sleep_forever_interruptable."));
}

TEST(WaitOnlyWhileTest, ConcernsTheCallingThreadOnly) {
  const std::atomic<int> keep_going{0};
  wait_only_while(&keep_going);
  const sleeper other{[] { EXPECT_TRUE(thread_may_wait()); }};
  EXPECT_TRUE(eventually([&] { return other.done(); }));
  EXPECT_FALSE(thread_may_wait());
  wait_only_while(nullptr);
}

TEST(WaitOnlyWhileTest, ClearingTheFlagAndWakingEndsEachKindOfWait) {
  for (void (*wait)() : {sleep_long, wait_without_reason, sleep_forever_interruptable}) {
    std::atomic<int> keep_going{1};
    const sleeper one{[&] {
      wait_only_while(&keep_going);
      while (thread_may_wait()) {
        wait();
      }
    }};
    EXPECT_TRUE(all_asleep({&one}));
    keep_going = 0;
    wake_sleepers();
    EXPECT_TRUE(eventually([&] { return one.done(); }));
  }
}

TEST(SleepForeverInterruptableTest, EndsOnAnInterruptionOnly) {
  const sleeper forever{sleep_forever_interruptable};
  {
    const sleeper ordinary{sleep_long};
    EXPECT_TRUE(all_asleep({&forever, &ordinary}));
    wake_sleepers();
    EXPECT_TRUE(eventually([&] { return ordinary.done(); }));
  }
  EXPECT_TRUE(all_asleep({&forever}));
  EXPECT_FALSE(forever.done());
  interrupt_sleepers();
  EXPECT_TRUE(eventually([&] { return forever.done(); }));
}

TEST(SleepForeverTest, NoSignalEndsIt) {
  const child_outcome result = run_logging_child([] {
    std::signal(SIGUSR1, [](int number) {
      if (write(STDERR_FILENO, "signal ", 7) != 7) _exit(number);
    });
    const pid_t child = fork();
    if (child == 0) {
      sleep_forever();
    }
    const std::string stat = "/proc/" + std::to_string(child) + "/stat";
    const auto in_sleep = [&] { return read_text_file(stat).find(") S") != std::string::npos; };
    for (int i = 0; i < 3; ++i) {
      if (!eventually(in_sleep)) return 1;
      kill(child, SIGUSR1);
      std::this_thread::sleep_for(std::chrono::milliseconds{20});
    }
    if (!eventually(in_sleep) || waitpid(child, nullptr, WNOHANG) != 0) return 2;
    kill(child, SIGKILL);
    return waitpid(child, nullptr, 0) == child ? 0 : 3;
  });
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output.substr(0, 7), "signal ");
}

}  // namespace

// Stands before the C library's own, for the whole test program: the tests above let a clock fail with it.
extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
  if (clock_of_test != nullptr) return clock_of_test(now);
  return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
}
