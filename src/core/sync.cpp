#include "core/sync.h"

#ifndef NDEBUG

namespace {

// Ranks of the locks that this thread holds, in the order in which it took them.
struct held_locks {
  lock_rank ranks[16];
  int count;
};
thread_local constinit held_locks held{};

}  // namespace

void assert_lock_order(lock_rank rank) {
  for (int i = 0; i < held.count; ++i) {
    assert(held.ranks[i] < rank && "locks taken in the wrong order");
  }
  assert(held.count < 16);
  held.ranks[held.count++] = rank;
}

void forget_lock(lock_rank rank) {
  for (int i = held.count - 1; i >= 0; --i) {
    if (held.ranks[i] != rank) continue;
    for (int j = i + 1; j < held.count; ++j) {
      held.ranks[j - 1] = held.ranks[j];
    }
    --held.count;
    return;
  }
  assert(false && "a lock given back that this thread does not hold");
}

#endif
