#include "core/sync.h"

#include <cerrno>
#include <ctime>
#include <gtest/gtest.h>
#include <thread>
#include <type_traits>

namespace {

static_assert(std::is_trivially_destructible_v<sync_mutex>);
static_assert(std::is_trivially_destructible_v<sync_condition>);

timespec from_now(long milliseconds) {
  timespec at{};
  clock_gettime(CLOCK_MONOTONIC, &at);
  at.tv_nsec += milliseconds * 1'000'000;
  at.tv_sec += at.tv_nsec / 1'000'000'000;
  at.tv_nsec %= 1'000'000'000;
  return at;
}

bool is_before(const timespec& a, const timespec& b) {
  return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_nsec < b.tv_nsec;
}

TEST(ScopedLockTest, LetsOneThreadInAtATime) {
  struct {
    sync_mutex lock{lock_rank::leaf};
    int count GUARDED_BY(lock) = 0;
  } shared;
  const auto add = [&] {
    for (int i = 0; i < 10'000; ++i) {
      const scoped_lock lock{shared.lock};
      ++shared.count;
    }
  };
  std::thread one{add};
  std::thread two{add};
  one.join();
  two.join();
  const scoped_lock lock{shared.lock};
  EXPECT_EQ(shared.count, 20'000);
}

TEST(ConditionTest, AWaitEndsAtItsDeadlineAndNotBefore) {
  sync_mutex lock{lock_rank::leaf};
  sync_condition condition;
  const timespec deadline = from_now(20);
  const scoped_lock held{lock};
  int result = 0;
  while (result == 0) {
    result = condition.wait_until(lock, deadline);
  }
  EXPECT_EQ(result, ETIMEDOUT);
  EXPECT_FALSE(is_before(from_now(0), deadline));
}

TEST(ConditionTest, SignalAndBroadcastEndWaits) {
  struct {
    sync_mutex lock{lock_rank::leaf};
    sync_condition changed;
    int stage GUARDED_BY(lock) = 0;
  } shared;
  std::thread waiter{[&] {
    const scoped_lock held{shared.lock};
    while (shared.stage != 1) {
      EXPECT_EQ(shared.changed.wait(shared.lock), 0);
    }
    shared.stage = 2;
    shared.changed.broadcast();
  }};
  {
    const scoped_lock held{shared.lock};
    shared.stage = 1;
    shared.changed.signal();
    const timespec deadline = from_now(60'000);
    while (shared.stage != 2 && shared.changed.wait_until(shared.lock, deadline) == 0) {
    }
    EXPECT_EQ(shared.stage, 2);
  }
  waiter.join();
}

#ifndef NDEBUG
TEST(LockOrderTest, TakingUpwardsAndGivingBackInAnyOrderIsFine) {
  assert_lock_order(lock_rank::discovery);
  assert_lock_order(lock_rank::agent_state);
  assert_lock_order(lock_rank::log_writer);
  forget_lock(lock_rank::agent_state);
  forget_lock(lock_rank::log_writer);
  assert_lock_order(lock_rank::leaf);
  forget_lock(lock_rank::leaf);
  forget_lock(lock_rank::discovery);
  assert_lock_order(lock_rank::discovery);
  forget_lock(lock_rank::discovery);
}

TEST(LockOrderDeathTest, TakingDownwardsStopsTheProcess) {
  EXPECT_DEATH(
      {
        assert_lock_order(lock_rank::log_writer);
        assert_lock_order(lock_rank::discovery);
      },
      "locks taken in the wrong order");
}

TEST(LockOrderDeathTest, TwoLocksOfOneRankAreNeverHeldTogether) {
  EXPECT_DEATH(
      {
        assert_lock_order(lock_rank::leaf);
        assert_lock_order(lock_rank::leaf);
      },
      "locks taken in the wrong order");
}

TEST(LockOrderDeathTest, GivingBackWhatIsNotHeldStopsTheProcess) {
  EXPECT_DEATH(forget_lock(lock_rank::leaf), "a lock given back that this thread does not hold");
}

TEST(LockOrderTest, EachThreadHasAnOrderOfItsOwn) {
  assert_lock_order(lock_rank::log_writer);
  std::thread other{[] {
    assert_lock_order(lock_rank::discovery);
    forget_lock(lock_rank::discovery);
  }};
  other.join();
  forget_lock(lock_rank::log_writer);
}
#endif

}  // namespace
