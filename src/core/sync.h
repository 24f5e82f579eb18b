#pragma once

#include <cassert>
#include <cstdint>
#include <ctime>
#include <pthread.h>

// Locks that clang's -Wthread-safety understands, and whose order debug builds assert. They wrap pthread
// objects because those need no destructor: threads outlive exit() here.

#if defined(__clang__)
#define THREAD_ANNOTATION(attribute) __attribute__((attribute))
#else
#define THREAD_ANNOTATION(attribute)
#endif
#define CAPABILITY(name) THREAD_ANNOTATION(capability(name))
#define SCOPED_CAPABILITY THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(lock) THREAD_ANNOTATION(guarded_by(lock))
#define PT_GUARDED_BY(lock) THREAD_ANNOTATION(pt_guarded_by(lock))
#define REQUIRES(...) THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define RELEASE(...) THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define EXCLUDES(...) THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS THREAD_ANNOTATION(no_thread_safety_analysis)

/// The order in which one thread may take locks: only upwards. Locks of one rank are never held together.
enum class lock_rank : uint8_t {
  connections,     ///< pause and resume: session and requests together
  discovery,       ///< discovery period and thread
  broker_session,  ///< start and stop of the broker thread
  agent_state,     ///< the state record: set, report, save
  delivery_pool,   ///< enqueueing and the workers' exit decision
  delivery_wait,   ///< idle workers
  delivery_queue,  ///< the message queue
  leaf,            ///< no other lock but the log's is taken under it
  log_writer,      ///< the log: innermost, every other lock may be held around it
};

#ifndef NDEBUG
/// Debug builds: notes that the calling thread takes (gives back) a lock, and stops the process on a wrong order.
void assert_lock_order(lock_rank rank);
void forget_lock(lock_rank rank);
#else
inline void assert_lock_order(lock_rank) {}
inline void forget_lock(lock_rank) {}
#endif

/// A mutex with a place in the lock order. Never destroyed; not copied.
struct CAPABILITY("mutex") sync_mutex {
  constexpr explicit sync_mutex(lock_rank order) : rank{order} {}
  sync_mutex(const sync_mutex&) = delete;
  sync_mutex& operator=(const sync_mutex&) = delete;

  void lock() ACQUIRE() {
    assert_lock_order(rank);
    pthread_mutex_lock(&handle);
  }
  void unlock() RELEASE() {
    pthread_mutex_unlock(&handle);
    forget_lock(rank);
  }

  pthread_mutex_t handle = PTHREAD_MUTEX_INITIALIZER;
  const lock_rank rank;
};

/// Holds a mutex until the end of the scope.
struct SCOPED_CAPABILITY scoped_lock {
  explicit scoped_lock(sync_mutex& guarded) ACQUIRE(guarded) : mutex{guarded} { mutex.lock(); }
  ~scoped_lock() RELEASE() { mutex.unlock(); }
  scoped_lock(const scoped_lock&) = delete;
  scoped_lock& operator=(const scoped_lock&) = delete;

  sync_mutex& mutex;
};

/// A condition variable. Waits test their reason under the mutex that the waker takes.
struct sync_condition {
  constexpr sync_condition() = default;
  sync_condition(const sync_condition&) = delete;
  sync_condition& operator=(const sync_condition&) = delete;

  /// Wakes one waiter, or all.
  void signal() { pthread_cond_signal(&handle); }
  void broadcast() { pthread_cond_broadcast(&handle); }

  /// Waits for a wake-up; 0, or the error number. May also return without one: test the reason again.
  int wait(sync_mutex& held) REQUIRES(held) { return pthread_cond_wait(&handle, &held.handle); }

  /// As wait(), until `deadline` on CLOCK_MONOTONIC at the latest: then the result is ETIMEDOUT.
  int wait_until(sync_mutex& held, const timespec& deadline) REQUIRES(held) {
    return pthread_cond_clockwait(&handle, &held.handle, CLOCK_MONOTONIC, &deadline);
  }

  pthread_cond_t handle = PTHREAD_COND_INITIALIZER;
};
