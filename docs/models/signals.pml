/* The agent's signals: from their arrival to what the first thread does about them, and SIGTERM's way from there to
   the end of the process.

   Bounds: USER_SIGNALS times SIGUSR1 and one SIGTERM from outside, at any time from the program's start on; a signal
   pipe for PIPE_ROOM bytes; at most one thread that ends the process for a reason of its own, at any time. SIGUSR1
   stands for SIGUSR2, SIGCHLD and SIGHUP too, which differ only in what is done in the end; it is also the one that
   the broker thread lets in, whose handler runs beside the first thread.

   Shown: after a signal's arrival its action begins at least once, a SIGTERM always ends the process, and only one
   thread gets into the exit. */

#include "sync.pml"

#ifndef USER_SIGNALS
#define USER_SIGNALS 3
#endif
#define PIPE_ROOM 2

/* The kernel's side. */
bool pending_term, pending_usr;
bool blocked, handled, pipe_open;
bool broker_lets_in;

/* The signal pipe and the flags, by signal. */
byte term_bytes, usr_bytes;
bool term_arrived, usr_arrived;

/* SIGTERM's way. */
bool pipe_ready, control_pipe, main_waiting, sigterm_received;
byte control_bytes;  /* what the listener is told: 0 nothing yet */
#define END_THREAD 1
#define EXIT_PROCESS 2
bool listener_ended;

bool exit_begun;
byte inside_exit;
bool killed;  /* by a signal's default action: before the handlers are there */

/* For the judge. */
bool term_sent, term_owed, usr_owed;

/* ---- the one way out */

inline exit_process() {
#ifdef MISTAKE_TWO_EXITS
  inside_exit++; assert(inside_exit == 1);
  (false)
#else
  atomic {
    if
    :: exit_begun
    :: !exit_begun ->                     /* exit.enter */
      exit_begun = true;
      inside_exit++;
      assert(inside_exit == 1)
    fi
  };
  (false)                                 /* exit.stay_out */
#endif
}

/* ---- the handler, on whichever thread it runs */

#define ROOM (pipe_open && term_bytes + usr_bytes < PIPE_ROOM)

inline write_byte(bytes) {
#ifndef MISTAKE_NO_BYTE
  atomic {                                /* note.byte */
    if
    :: ROOM -> bytes++
    :: !ROOM
    fi
  }
#else
  skip
#endif
}

inline note_signal(arrived, bytes) {
#ifdef MISTAKE_BYTE_BEFORE_FLAG
  write_byte(bytes);
  arrived = true
#else
  arrived = true;                         /* note.flag */
  write_byte(bytes)
#endif
}

/* ---- the first thread */

inline terminate_agent() {
  if
  :: !pipe_ready -> exit_process()        /* terminate.at_once */
  :: else
  fi;
#ifndef MISTAKE_TERM_NOTED_LATE
  sigterm_received = true;                /* terminate.note */
#endif
  if
  :: main_waiting -> command = END_THREAD  /* terminate.choose */
  :: else -> command = EXIT_PROCESS
  fi;
  atomic {                                /* terminate.tell */
    if
    :: control_pipe && control_bytes == 0 -> control_bytes = command
    :: else
    fi
  };
#ifdef MISTAKE_TERM_NOTED_LATE
  sigterm_received = true
#endif
}

inline carry_out_term() {
  if
  :: atomic { term_arrived -> term_arrived = false; term_owed = false };  /* carry_out.take */
    terminate_agent()
  :: else
  fi
}

inline carry_out_usr() {
  if
  :: atomic { usr_arrived -> usr_arrived = false; usr_owed = false }
  :: else
  fi
}

inline install_signal_handlers() {
#ifdef MISTAKE_HANDLERS_FIRST
  handled = true;
  pipe_open = true;
  blocked = true
#else
  pipe_open = true;                       /* install.pipe */
  blocked = true;                         /* install.block */
  handled = true                          /* install.handlers */
#endif
}

proctype first_thread() {
  byte command;
  bool term_read, usr_read;
  install_signal_handlers();
  run main_thread();
  run broker_thread();
  run stranger();
  do
  :: /* serve.wait: lets signals in until one came or there is something to read */
    if
    :: atomic { pending_term -> pending_term = false }; note_signal(term_arrived, term_bytes)
    :: atomic { pending_usr -> pending_usr = false }; note_signal(usr_arrived, usr_bytes)
    :: term_bytes + usr_bytes > 0
    fi;
    atomic {                              /* serve.read */
      term_read = term_bytes > 0;
      usr_read = usr_bytes > 0;
      term_bytes = 0;
      usr_bytes = 0
    };
    if                                    /* serve.in_order */
    :: term_read -> carry_out_term()
    :: else
    fi;
    if
    :: usr_read -> carry_out_usr()
    :: else
    fi;
#ifndef MISTAKE_NO_LOOK_AT_FLAGS
    carry_out_term();                     /* serve.flags */
    carry_out_usr()
#else
    skip
#endif
  od
}

/* ---- the other threads */

/* The broker thread lets SIGUSR1 in: one that the process gets may run its handler here, beside the first thread. */
proctype broker_thread() {
  do
  :: atomic { pending_usr -> pending_usr = false }; note_signal(usr_arrived, usr_bytes)
  od
}

proctype listener() {
  if
  :: control_bytes == END_THREAD -> listener_ended = true  /* listener.told */
  :: control_bytes == EXIT_PROCESS -> exit_process()       /* listener.exit */
  fi
}

proctype main_thread() {
#ifdef MISTAKE_READY_BEFORE_PIPE
  pipe_ready = true;
  control_pipe = true;
#else
  control_pipe = true;                    /* main.pipe */
  pipe_ready = true;                      /* main.ready */
#endif
  run listener();                         /* main.listener */
  main_waiting = true;                    /* main.announce */
  listener_ended;                         /* main.join */
  if
  :: sigterm_received -> exit_process()   /* main.exit */
  :: else                                 /* main.sleep */
  fi
}

/* Any thread may end the process for a reason of its own. */
proctype stranger() {
  if
  :: exit_process()
  :: true
  fi
}

/* ---- outside */

inline arrive(pending, arrived, bytes, owed) {
  if
  :: !blocked && !handled -> killed = true
  :: !blocked && handled ->  /* the handler runs at once */
    arrived = true;
    owed = true;
    if
    :: ROOM -> bytes++
    :: !ROOM
    fi
  :: blocked -> pending = true; owed = true
  fi
}

proctype outside() {
  byte user_signals;
  do
  :: atomic { user_signals < USER_SIGNALS -> user_signals++; arrive(pending_usr, usr_arrived, usr_bytes, usr_owed) }
  :: atomic { !term_sent -> term_sent = true; arrive(pending_term, term_arrived, term_bytes, term_owed) }
  :: break
  od
}

#define AT_ITS_END (killed || inside_exit == 1)

proctype judge() {
  timeout ->
  assert(inside_exit <= 1);
  assert(term_sent -> AT_ITS_END : true);
  assert(AT_ITS_END || (!usr_owed && !term_owed))
}

init {
  atomic { run first_thread(); run outside(); run judge() }
}
