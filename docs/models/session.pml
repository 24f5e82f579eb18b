/* The broker session: start and stop with their signal, the sleep gate, the HTTP turn and the pause gate, and the
   control requests that pause and resume it from two threads.

   Bounds: one broker thread at a time; LISTENER_REQUESTS and WORKER_REQUESTS control requests (pause, resume, claim or
   push, in any order) from the two threads that carry them out; one end of a discovery period, with its request before
   it; one SIGUSR1 from outside. The broker thread goes round without bound. Each of its sleeps and blocking calls ends
   by itself or never, which is chosen when it begins: whoever relies on a wake-up is not saved by a time-out.

   Shown: in every state in which nothing can move any more, no thread waits that should not (judge), and every stop
   ends (stops_end, under weak fairness). */

#include "sync.pml"

#ifndef LISTENER_REQUESTS
#define LISTENER_REQUESTS 2
#endif
#ifndef WORKER_REQUESTS
#define WORKER_REQUESTS 1
#endif

#define BROKER 0
#define DISCOVERY 1
#define LISTENER 2
#define WORKER 3

mtype = { none, running, returned };                       /* a thread */
mtype = { elsewhere, in_turn, in_gate, in_sleep, in_call }; /* where it is */

bool keep;    /* keep_connection */
bool paused;

bool connections_lock, discovery_lock, session_lock, end_lock, gate_lock, turn_lock;
mtype thread = none;  /* the broker thread */
bool has_thread, ended;

/* Sleep gate. The source counts wake-ups and a sleeper compares; here each sleeper has a mark that every wake-up sets,
   which is the same while nobody sleeps through 2^32 of them. */
bool woken[4], interrupted, waits_at_gate[4];

bool turn_taken, waits_for_turn[4];

/* The signal: it breaks a call that stands at that moment, and nothing else. */
bool takes_signal, broken;

/* For the judge. */
mtype place[4] = elsewhere;
bool connected, stopped_by_discovery, discovery_done, listener_done, worker_done;
#ifdef LIVENESS
byte stopping;
#define COUNT_STOP(change) stopping = stopping change 1
#else
#define COUNT_STOP(change) skip
#endif

/* ---- sleep gate */

#define WAKE(id) woken[id] = true; waits_at_gate[id] = false

inline wake_sleepers() {
  /* wake.lock, wake.count, wake.broadcast */
  atomic { !gate_lock -> WAKE(BROKER); WAKE(DISCOVERY); WAKE(LISTENER); WAKE(WORKER) }
}

inline interrupt_sleepers() {
  /* interrupt.lock, interrupt.count, interrupt.broadcast */
  atomic { !gate_lock -> interrupted = true; WAKE(BROKER); WAKE(DISCOVERY); WAKE(LISTENER); WAKE(WORKER) }
}

/* A sleep of the broker thread. `mark` is what ends it. */
inline sleep_at_gate(mark, ends_by_itself) {
#ifdef MISTAKE_TEST_OUTSIDE_LOCK
  mark = false;
  if
  :: keep ->
    atomic { !gate_lock -> waits_at_gate[BROKER] = true; place[BROKER] = in_sleep };
    atomic { !waits_at_gate[BROKER] || ends_by_itself -> waits_at_gate[BROKER] = false; place[BROKER] = elsewhere }
  :: else
  fi;
#else
  atomic { !gate_lock -> gate_lock = true; mark = false };  /* sleep.lock, sleep.seen */
  do
  :: atomic { !mark && keep ->                  /* sleep.test */
       waits_at_gate[BROKER] = true;            /* sleep.wait */
       gate_lock = false;
       place[BROKER] = in_sleep
     };
     atomic { (!waits_at_gate[BROKER] || ends_by_itself) && !gate_lock ->
       gate_lock = true;
       place[BROKER] = elsewhere;
       if
       :: waits_at_gate[BROKER] -> waits_at_gate[BROKER] = false; break  /* its time is up */
       :: else
       fi
     }
  :: else -> break
  od;
  unlock(gate_lock)
#endif
}

/* ---- HTTP: the turn and the pause gate. The broker thread has a flag that ends its waits; the threads that carry out
   control requests are refused while requests are held back. */

#define MAY_WAIT(me) (me != BROKER || keep)
#define REFUSES(me) (me == LISTENER || me == WORKER)
#define MAY_GO_ON(me) (MAY_WAIT(me) && !(REFUSES(me) && paused))

#define WAKE_TURN \
  waits_for_turn[BROKER] = false; waits_for_turn[DISCOVERY] = false; \
  waits_for_turn[LISTENER] = false; waits_for_turn[WORKER] = false

inline wake_http_waiters() {
  atomic { !turn_lock -> WAKE_TURN }            /* wake_http.lock, wake_http.broadcast */
}

inline wait_at_pause_gate(me) {
  do
  :: paused ->                                  /* pause_gate.look */
#ifdef MISTAKE_REFUSER_AT_GATE
    if
    :: MAY_GO_ON(me)
    :: else -> break
    fi;
#else
    if
    :: MAY_WAIT(me)                             /* pause_gate.may_wait */
    :: else -> break
    fi;
#endif
    atomic { !gate_lock -> gate_lock = true; woken[me] = false; place[me] = in_gate };  /* wakeup.lock, wakeup.seen */
    do
    :: !woken[me] && MAY_WAIT(me) ->            /* wakeup.test */
      if
      :: atomic { paused -> waits_at_gate[me] = true; gate_lock = false };  /* wakeup.wait */
         atomic { !waits_at_gate[me] && !gate_lock -> gate_lock = true }
      :: else -> break
      fi
    :: else -> break
    od;
    atomic { gate_lock = false; place[me] = elsewhere }
  :: else -> break
  od
}

/* `made` tells whether the request was let through. */
inline request(me) {
  atomic { !turn_lock -> turn_lock = true; place[me] = in_turn };  /* turn.lock */
  do
  :: atomic { turn_taken && MAY_GO_ON(me) ->    /* turn.test */
       waits_for_turn[me] = true;               /* turn.wait */
       turn_lock = false
     };
     atomic { !waits_for_turn[me] && !turn_lock -> turn_lock = true }
  :: else -> break
  od;
  if
  :: atomic { !turn_taken && MAY_GO_ON(me) ->   /* turn.take */
       turn_taken = true;
       turn_lock = false;
       place[me] = elsewhere
     };
#ifdef MISTAKE_REFUSER_AT_GATE
    wait_at_pause_gate(me);
#else
    if
    :: REFUSES(me)                              /* pause_gate.refuse */
    :: else -> wait_at_pause_gate(me)
    fi;
#endif
    made = MAY_GO_ON(me);                       /* request.test */
    atomic { !turn_lock ->                      /* turn.give */
      turn_taken = false;
      WAKE_TURN                                 /* turn.broadcast */
    }
  :: atomic { turn_taken || !MAY_GO_ON(me) -> made = false; turn_lock = false; place[me] = elsewhere }
  fi
}

/* ---- start and stop */

inline start_session() {
  lock(session_lock);                           /* start.lock */
  if
  :: has_thread                                 /* start.test */
  :: else ->
    keep = true;                                /* start.keep */
    atomic { !end_lock ->
      ended = false;                            /* start.clear_end */
      assert(thread == none);                   /* never two broker threads */
      thread = running;                         /* start.create */
      has_thread = true
    }
  fi;
  unlock(session_lock)
}

#define SIGNAL_BREAKS (takes_signal && place[BROKER] == in_call && !broken)

inline stop_session() {
  COUNT_STOP(+);
  lock(session_lock);                           /* stop.lock */
#ifdef MISTAKE_WAKE_BEFORE_CLEAR
  if
  :: has_thread -> wake_sleepers(); wake_http_waiters(); keep = false
  :: else -> keep = false
  fi;
#else
  keep = false;                                 /* stop.clear */
#endif
  if
  :: has_thread ->                              /* stop.test */
#ifndef MISTAKE_WAKE_BEFORE_CLEAR
    wake_sleepers();                            /* stop.wake_sleepers */
#ifndef MISTAKE_NO_HTTP_WAKE
    wake_http_waiters();                        /* stop.wake_http */
#endif
#endif
#ifndef MISTAKE_NO_JOIN
    lock(end_lock);
    do
    :: !ended ->                                /* stop.look */
      atomic {
        broken = broken || SIGNAL_BREAKS;       /* stop.signal */
        end_lock = false                        /* stop.wait */
      };
      /* The wait ends on the mark, or after 10 ms. Rounds that would change nothing are left out: the next one begins
         when the mark is there, or when its signal would break a call. */
#ifdef MISTAKE_SIGNAL_ONCE
      atomic { ended && !end_lock -> end_lock = true }
#else
      atomic { (ended || SIGNAL_BREAKS) && !end_lock -> end_lock = true }
#endif
    :: else -> break
    od;
    unlock(end_lock);
    atomic { thread == returned -> thread = none };  /* stop.join */
#endif
    has_thread = false                          /* stop.forget */
  :: else
  fi;
  unlock(session_lock);
  COUNT_STOP(-)
}

/* ---- control requests */

inline pause_http_requests() {
  paused = true;                                /* pause.set */
#ifndef MISTAKE_PAUSE_WITHOUT_WAKE
  wake_http_waiters();                          /* pause.wake_http */
#endif
}

inline resume_http_requests() {
#ifdef MISTAKE_RESUME_WAKES_FIRST
  wake_sleepers();
  paused = false
#else
  paused = false;                               /* resume.clear */
  wake_sleepers()                               /* resume.wake_sleepers */
#endif
}

inline pause_command() {
#ifndef MISTAKE_COMMANDS_AT_ONCE
  lock(connections_lock);                       /* pause_command.lock */
#endif
  stop_session();                               /* pause_command.stop */
  pause_http_requests();                        /* pause_command.pause */
#ifndef MISTAKE_NO_SECOND_LOOK
  if
  :: keep -> stop_session()                     /* pause_command.stop_again */
  :: else
  fi;
#endif
  unlock(connections_lock)
}

inline resume_command() {
#ifndef MISTAKE_COMMANDS_AT_ONCE
  lock(connections_lock);                       /* resume_command.lock */
#endif
  resume_http_requests();                       /* resume_command.resume */
  !discovery_lock;                              /* resume_command.start: first looks at the discovery period */
  start_session();
  unlock(connections_lock)
}

inline claim_command() {
  if
  :: !keep -> start_session()                   /* claim_command.start */
  :: else
  fi
}

inline control_requests(me, count) {
  byte left = count;
  bool made;
  do
  :: left > 0 ->
    left--;
    if
    :: pause_command()
    :: resume_command()
    :: claim_command()
    :: request(me); made = false
    fi
  :: atomic { left > 0 -> left = 0 }
  :: else -> break
  od
}

/* ---- threads */

/* A system call: it ends by its event, by the signal, or never. */
inline blocking_call() {
  if
  :: atomic { event_comes = true; place[BROKER] = in_call }
  :: atomic { place[BROKER] = in_call }
  fi;
  atomic { broken || event_comes ->
    if
    :: broken -> cut = true
    :: event_comes -> cut = false
    fi;
    broken = false;
    event_comes = false;
    place[BROKER] = elsewhere
  }
}

/* From the connected socket to its end. */
inline serve_connection() {
  do
#ifdef MISTAKE_CALL_BEGUN_ANEW
  :: true ->
#else
  :: keep ->                                    /* session.still */
#endif
    blocking_call();                            /* session.poll */
    if
    :: cut = false                              /* interrupted, or something to read */
    :: atomic { !cut -> break }                 /* the other end closed */
    fi
#ifndef MISTAKE_CALL_BEGUN_ANEW
  :: else -> break
#endif
  od;
  connected = false
}

proctype broker() {
  bool made, cut, event_comes;
  do
  :: thread == running ->
#ifndef MISTAKE_SIGNAL_BLOCKED
    takes_signal = true;                        /* thread.let_signal_in */
#endif
    /* thread.tie_waits: from here on MAY_WAIT(BROKER) looks at the flag */
    do
    :: keep ->                                  /* session.test */
      request(BROKER);                          /* session.ask */
      if
      :: atomic { !made -> skip }; sleep_at_gate(woken[BROKER], false)  /* session.ask_later */
      :: atomic { made -> made = false }; sleep_at_gate(woken[BROKER], true)
      :: atomic { made -> made = false; interrupted = false }; sleep_at_gate(interrupted, false)  /* session.wait_forever */
      :: atomic { made -> made = false };
        blocking_call();                        /* session.connect */
        if
        :: atomic { cut -> cut = false }
        :: atomic { !cut -> connected = true }; serve_connection()
        fi;
        sleep_at_gate(woken[BROKER], false)     /* session.delay */
      fi
    :: else -> break
    od;
    takes_signal = false;
    atomic { !end_lock -> ended = true };       /* thread.end */
    thread = returned
  od
}

proctype discovery() {
  bool made;
  request(DISCOVERY);
  made = false;
  lock(discovery_lock);                         /* period.lock */
  if
  :: stop_session(); stopped_by_discovery = true  /* period.stop */
  :: true                                       /* claimed meanwhile */
  fi;
  atomic { discovery_lock = false; discovery_done = true }
}

proctype listener() {
  control_requests(LISTENER, LISTENER_REQUESTS);
  listener_done = true
}

proctype worker() {
  control_requests(WORKER, WORKER_REQUESTS);
  worker_done = true
}

proctype user_signal() {
  interrupt_sleepers()                          /* user_signal.wake */
}

/* ---- what must hold when nothing can move any more */

#define STANDS_RIGHTLY(me) \
  (place[me] == in_turn -> turn_taken && paused && MAY_GO_ON(me) : \
  (place[me] == in_gate -> paused && MAY_WAIT(me) : true))

proctype judge() {
  timeout ->
  /* Control requests always get through, and a discovery period's end as soon as its request may be made. */
  assert(listener_done && worker_done);
  assert(discovery_done || paused);
  /* A stopped thread is gone; one that stands has a reason. */
  assert(keep || thread == none);
  assert(has_thread == (thread != none));
  assert(STANDS_RIGHTLY(BROKER) && STANDS_RIGHTLY(DISCOVERY));
  assert(turn_taken -> (place[BROKER] == in_gate || place[DISCOVERY] == in_gate) : true);
  /* No connection stands while requests are held back; otherwise there is a session, unless a discovery period
     ended it. */
  assert(!(paused && connected));
  assert(paused || stopped_by_discovery || thread != none);
}

/* A session runs, or requests are held back. */
init {
  atomic {
    if
    :: thread = running; keep = true; has_thread = true
    :: paused = true
    fi;
    run broker(); run discovery(); run listener(); run worker(); run user_signal(); run judge()
  }
}

#ifdef LIVENESS
ltl stops_end { [] (stopping > 0 -> <> (stopping == 0)) }
#endif
