#pragma once

#include <pthread.h>

// A mutex that clang's -Wthread-safety understands. It needs no destructor: threads may outlive exit().

#if defined(__clang__)
#define USI_ANNOTATION(attribute) __attribute__((attribute))
#else
#define USI_ANNOTATION(attribute)
#endif
#define USI_GUARDED_BY(lock) USI_ANNOTATION(guarded_by(lock))
#define USI_REQUIRES(lock) USI_ANNOTATION(requires_capability(lock))

struct USI_ANNOTATION(capability("mutex")) usi_mutex {
  void lock() USI_ANNOTATION(acquire_capability()) { pthread_mutex_lock(&handle); }
  void unlock() USI_ANNOTATION(release_capability()) { pthread_mutex_unlock(&handle); }

  pthread_mutex_t handle = PTHREAD_MUTEX_INITIALIZER;
};

/// Holds a mutex until the end of the scope.
struct USI_ANNOTATION(scoped_lockable) usi_guard {
  explicit usi_guard(usi_mutex& guarded) USI_ANNOTATION(acquire_capability(guarded)) : mutex{guarded} {
    mutex.lock();
  }
  ~usi_guard() USI_ANNOTATION(release_capability()) { mutex.unlock(); }
  usi_guard(const usi_guard&) = delete;
  usi_guard& operator=(const usi_guard&) = delete;

  usi_mutex& mutex;
};
