/* The delivery pool: producers, the queue, and the worker that comes with the first message and gives itself up only
   when a wait fails or at a shutdown.

   Bounds: PRODUCERS threads with MESSAGES messages each; a queue of LIMIT messages (more are refused); FAILED_WAITS
   condition waits that fail, FAILED_STARTS threads that can't be made, EARLY_WAKEUPS wake-ups that nobody sent. A
   shutdown may come at any time; its endless yield while a worker lives is an end, as intended.

   Shown: no message is taken twice or out of order, none stays in the queue unless the last try to make a worker
   failed, there is never a second worker, and nobody uses the queue once it is destroyed. */

#include "sync.pml"

#ifndef PRODUCERS
#define PRODUCERS 2
#endif
#ifndef MESSAGES
#define MESSAGES 2
#endif
#define LIMIT 2
#define FAILED_WAITS 1
#define FAILED_STARTS 1
#define EARLY_WAKEUPS 1

/* The queue holds the messages from `taken` to `put`, numbered in the order in which they were put. */
byte put, taken, refused, delivered;
bool was_taken[PRODUCERS * MESSAGES + 1];
bool created = true;

bool pool_lock, wait_lock, queue_lock;
short available;  /* a mistake may make it negative */
byte waiting;
bool stop;

/* The condition: who waits on it, and how many of them were woken. */
byte asleep, woken;

byte workers, producers_done, failed_waits, failed_starts, early_wakeups;
bool last_start_failed;

#define IS_EMPTY (taken == put)

/* ---- the worker */

inline is_empty(result) {
  atomic { !queue_lock -> assert(created); result = IS_EMPTY }  /* queue.test */
}

inline dequeue() {
#ifdef MISTAKE_DEQUEUE_WITHOUT_LOCK
  first = taken;
  got = first != put;
  atomic { taken = first + got; assert(!got || !was_taken[first]); was_taken[first] = got }
#else
  atomic { !queue_lock ->                         /* queue.take */
    assert(created);
    got = !IS_EMPTY;
    first = taken;
    assert(!got || !was_taken[first]);
    was_taken[first] = was_taken[first] || got;
    taken = taken + got
  }
#endif
}

inline wait_for_message() {
#ifdef MISTAKE_TEST_OUTSIDE_LOCK
  is_empty(nothing);
  lock(wait_lock);
  waiting++;
  if
  :: nothing && !stop -> wait_for_work()
  :: else
  fi;
#else
  lock(wait_lock);                                /* wait.lock */
  waiting++;                                      /* wait.count */
  do
  :: is_empty(nothing);                             /* wait.test */
    if
    :: nothing && !stop && !failure -> wait_for_work()  /* wait.wait */
    :: else -> break
    fi
  od;
#endif
  waiting--;                                      /* wait.uncount */
  if
  :: failure -> got = false
  :: else -> dequeue()                            /* wait.take */
  fi;
  failure = false;
  unlock(wait_lock)
}

inline wait_for_work() {
  if
  :: atomic { failed_waits < FAILED_WAITS -> failed_waits++; failure = true }
  :: atomic { asleep++; wait_lock = false };
    atomic { !wait_lock && (woken > 0 || early_wakeups < EARLY_WAKEUPS) ->
      if
      :: woken > 0 -> woken--
      :: early_wakeups < EARLY_WAKEUPS && woken < asleep -> early_wakeups++
      fi;
      asleep--;
      wait_lock = true
    }
  fi
}

inline next_message() {
  is_empty(nothing);                                /* next.test */
  if
  :: !nothing ->
    dequeue();                                    /* next.take */
    if
    :: !got -> wait_for_message()
    :: else
    fi
  :: else -> wait_for_message()                   /* next.wait */
  fi
}

inline leave_pool() {
#ifdef MISTAKE_LEAVE_OUTSIDE_LOCK
  is_empty(nothing);
  lock(pool_lock);
#else
  lock(pool_lock);                                /* leave.lock */
#ifdef MISTAKE_LEAVE_WITHOUT_LOOK
  nothing = true;
#else
  is_empty(nothing);                                /* leave.test */
#endif
#endif
  if
  :: nothing -> atomic { available--; workers--; pool_lock = false }; break  /* leave.uncount */
  :: else -> unlock(pool_lock)
  fi
}

proctype worker() {
  bool nothing, got, failure;
  byte first;
  do
  :: next_message();
    if
    :: got ->                                     /* worker.deliver */
      atomic { assert(first == delivered); delivered++; got = false; first = 0 }
    :: else -> leave_pool()                       /* worker.leave */
    fi
  od
}

/* ---- producers */

inline enqueue() {
  if
  :: atomic { !queue_lock && created && put - taken < LIMIT -> put++; accepted = true }  /* queue.append */
  :: atomic { !queue_lock && (!created || put - taken >= LIMIT) -> refused++; accepted = false }  /* queue.refuse */
  fi
}

inline start_worker() {
  if
  :: atomic { failed_starts < FAILED_STARTS -> failed_starts++; last_start_failed = true }
  :: atomic {
#ifndef MISTAKE_DEQUEUE_WITHOUT_LOCK
      assert(workers == 0);                       /* never a second worker */
#endif
      run worker();                               /* start_worker.create */
      workers++;
      last_start_failed = false
    };
#if !defined(MISTAKE_SECOND_WORKER) && !defined(MISTAKE_DEQUEUE_WITHOUT_LOCK)
    available++                                   /* start_worker.count */
#else
    skip
#endif
  fi
}

inline announce_message() {
  atomic { !wait_lock -> seen = waiting };        /* announce.look */
  if
  :: seen != 0 ->
    atomic { !wait_lock ->                        /* announce.wake */
      if
      :: woken < asleep -> woken++
      :: else
      fi
    }
  :: seen == 0 && available <= 0 -> start_worker()  /* announce.start */
  :: else  /* the worker is busy and will look */
  fi;
  seen = 0
}

proctype producer() {
  byte left = MESSAGES, seen;
  bool accepted;
  do
  :: left > 0 ->
    left--;
#ifdef MISTAKE_LOOK_BEFORE_QUEUE
    lock(pool_lock);
    announce_message();
    enqueue();
    unlock(pool_lock)
#elif defined(MISTAKE_NO_POOL_LOCK)
    enqueue();
    announce_message()
#else
    lock(pool_lock);                              /* send.lock */
    enqueue();                                    /* send.enqueue */
    if
    :: accepted -> announce_message()             /* send.announce */
    :: else
    fi;
    accepted = false;
    unlock(pool_lock)
#endif
  :: else -> break
  od;
  producers_done++
}

/* ---- the end */

proctype shutdown() {
  atomic { !wait_lock -> stop = true };           /* shutdown.stop */
  !pool_lock;                                     /* shutdown.attributes */
  woken = asleep;                                 /* shutdown.wake */
  atomic { !pool_lock ->                          /* shutdown.look */
    if
    :: available == 0 ->
      assert(IS_EMPTY || last_start_failed);
      created = false                             /* shutdown.destroy */
    :: else
    fi
  }
}

proctype judge() {
  timeout ->
  assert(producers_done == PRODUCERS);
  assert(put + refused == PRODUCERS * MESSAGES);
  assert(!pool_lock && !wait_lock && !queue_lock);
  assert(taken == delivered);
  assert(IS_EMPTY || last_start_failed);
  assert(waiting == asleep);
  assert(!stop || workers == 0)
}

init {
  byte number;
  atomic {
    for (number : 1 .. PRODUCERS) { run producer() }
#ifndef WITHOUT_SHUTDOWN
    if
    :: run shutdown()
    :: true
    fi;
#endif
    run judge()
  }
}

#ifdef LIVENESS
ltl everything_ends { <> (producers_done == PRODUCERS && (IS_EMPTY || last_start_failed)) }
#endif
