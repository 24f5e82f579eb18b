/* The watchdog and its agents, one after the other, with the signals that both get.

   Bounds: HANGUPS times SIGHUP (to the watchdog, or to the agent, which passes it on), KILLS times kill -9 of the agent,
   one each of SIGTERM, SIGUSR1 and a SIGCHLD that somebody sends by hand, and ENDS agents that end by themselves; all
   at any time and in any order. Signals of one kind that are pending at once are one, and sigwait takes any.

   Shown: no agent's end is missed, there is never a second agent, no signal goes to an agent that was reaped, a SIGHUP
   always brings a new agent, and none is left behind by a SIGTERM. */

#ifndef HANGUPS
#define HANGUPS 2
#endif
#ifndef KILLS
#define KILLS 2
#endif
#define ENDS 1

mtype = { no_agent, forked, defaults_set, unprepared, prepared, ended, killed };
mtype = { starting, watching, over, over_by_term };

mtype watchdog = starting;
bool blocked, handled;  /* the watchdog's signals */
bool hup, chld, term, usr;  /* pending for the watchdog */
bool arrived;               /* any of them, for the mistake that waits for the next one */

mtype agent = no_agent;
bool agent_term, agent_usr;  /* pending for the agent */

byte hangups, kills, ends;
bool restart_owed;

#define RUNS (agent == forked || agent == defaults_set || agent == unprepared || agent == prepared)
#define DEAD (agent == ended || agent == killed)

/* ---- signals to the watchdog */

/* Before it blocks them, a signal has its default action. */
inline to_watchdog(pending) {
  if
  :: watchdog == over || watchdog == over_by_term
  :: (watchdog == starting || watchdog == watching) && !blocked -> watchdog = over
  :: else -> pending = true; arrived = true
  fi
}

/* A system may drop a signal whose action is to ignore it, and that is SIGCHLD's without a handler. */
inline child_signal() {
  if
  :: handled -> to_watchdog(chld)
  :: else
  fi
}

inline agent_dies(how) {
  agent = how;
  agent_term = false;
  agent_usr = false;
  child_signal()
}

/* ---- the agent: what becomes of its signals depends on how far it has come */

proctype agent_process() {
  do
#ifdef MISTAKE_UNBLOCKED_FIRST
  /* the watchdog's handler, which does nothing, still takes them */
  :: atomic { agent == forked && (agent_term || agent_usr) -> agent_term = false; agent_usr = false }
#endif
  :: atomic { agent == forked -> agent = defaults_set }  /* child.defaults */
  :: atomic { agent == defaults_set ->             /* child.unblock */
      agent = unprepared;
      if
      :: agent_term || agent_usr -> agent_dies(killed)
      :: else
      fi
    }
  :: atomic { agent == unprepared -> agent = prepared }  /* agent.handlers */
  :: atomic { agent == prepared && agent_term -> agent_dies(ended) }
  :: atomic { agent == prepared && agent_usr -> agent_usr = false }
  :: atomic { (agent == unprepared || agent == prepared) && ends < ENDS -> ends++; agent_dies(ended) }
  od
}

/* kill(agent, SIGTERM or SIGUSR1) by the watchdog. */
inline to_agent(pending) {
  atomic {
    assert(agent != no_agent);    /* or the signal would reach another process */
    if
    :: agent == unprepared -> agent_dies(killed)
    :: agent == forked || agent == defaults_set || agent == prepared -> pending = true
    :: DEAD
    fi
  }
}

/* ---- the watchdog */

inline take_over_signals() {
  atomic { watchdog == starting -> blocked = true };  /* takeover.block */
#ifndef MISTAKE_NO_HANDLER
  handled = true                  /* takeover.handlers */
#else
  skip
#endif
}

inline start_agent() {
  atomic {
    watchdog != over ->
    assert(agent == no_agent);    /* never a second one */
    restart_owed = false;
    agent = forked                /* start_agent.fork */
  }
}

#define ANY_PENDING (hup || chld || term || usr)

inline wait_for_signal(taken) {
#ifdef MISTAKE_TEST_THEN_PAUSE
  if
  :: !ANY_PENDING -> arrived = false; (arrived)
  :: else
  fi;
#endif
  atomic { ANY_PENDING ->         /* watch.wait */
    if
    :: hup -> hup = false; taken = 1
    :: chld -> chld = false; taken = 2
    :: term -> term = false; taken = 3
    :: usr -> usr = false; taken = 4
    fi
  }
}

inline watch_agent() {
  bool restart_requested = false;
  do
  :: wait_for_signal(taken);
    if
    :: taken == 1 ->
      restart_requested = true;   /* watch.restart_requested */
      restart_owed = true;
      to_agent(agent_term)        /* watch.hang_up */
    :: taken == 2 ->
      atomic {
        if
        :: DEAD ->                /* watch.reap */
          normal_end = (agent == ended);
          agent = no_agent;
          reaped = true
        :: else -> reaped = false  /* watch.still_there */
        fi
      };
      if
      :: reaped && normal_end && !restart_requested -> watchdog = over; goto finished  /* watch.end */
      :: reaped && (!normal_end || restart_requested) ->
#ifdef MISTAKE_REAPED_AND_WATCHED
        wait_for_signal(taken);
        if
        :: taken == 1 || taken == 3 -> to_agent(agent_term)
        :: else
        fi;
#endif
        break                     /* watch.again */
      :: !reaped
      fi
    :: taken == 3 ->
      to_agent(agent_term);       /* watch.terminate */
      watchdog = over_by_term;
      goto finished
    :: taken == 4 -> to_agent(agent_usr)  /* watch.pass_on */
    fi
  od
}

proctype watchdog_process() {
  byte taken;
  bool normal_end, reaped;
#ifdef MISTAKE_BLOCK_AFTER_FORK
  start_agent();
  take_over_signals();
  watchdog = watching;
  watch_agent();
#else
  take_over_signals();
  watchdog = watching;
#endif
  do
  :: start_agent();
    watch_agent()
  od;
finished:
  skip
}

/* ---- everybody else */

proctype others() {
  bool term_sent, usr_sent, chld_sent;
  do
  :: atomic { hangups < HANGUPS -> hangups++; to_watchdog(hup) }
  :: atomic { hangups < HANGUPS && agent == prepared && watchdog == watching -> hangups++; to_watchdog(hup) }  /* hangup.pass */
  :: atomic { !term_sent -> term_sent = true; to_watchdog(term) }
  :: atomic { !usr_sent -> usr_sent = true; to_watchdog(usr) }
  :: atomic { !chld_sent -> chld_sent = true; child_signal() }
  :: atomic { kills < KILLS && RUNS -> kills++; agent_dies(killed) }
  :: break
  od
}

proctype judge() {
  timeout ->
  assert(watchdog == watching || watchdog == over || watchdog == over_by_term);
  /* It watches an agent that has come up, and has seen every end. */
  assert(watchdog == watching -> agent == prepared && !agent_term && !ANY_PENDING : true);
  assert(!(watchdog == watching && restart_owed));
  /* When it has ended, no agent is left. */
  assert(watchdog != watching -> !RUNS : true)
}

init {
  atomic { run watchdog_process(); run agent_process(); run others(); run judge() }
}
