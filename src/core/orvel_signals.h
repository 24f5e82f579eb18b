#pragma once

#include <atomic>

// Signals of the agent process. A handler stores a flag, writes one byte to a pipe and keeps errno. The first thread
// reads the pipe in serve_signals() and carries out, in order, what each signal asks for. Every thread blocks the
// handled signals; the first one lets them in only while it waits, so each action runs as ordinary code. The broker
// thread alone also unblocks SIGUSR1: sent to that thread (pthread_kill), it only breaks a blocking call.

/// Creates the pipe, blocks the handled signals in the calling thread (and so in all threads that it makes later),
/// and installs the dispositions. SIGHUP is handled only under the watchdog. 0, or -1 (not logged).
[[nodiscard]] int install_signal_handlers(bool under_watchdog);

/// First thread: carries out signals until announce_main_end() is called.
void serve_signals();

/// orvel_main: tells serve_signals() to return.
void announce_main_end();

/// Blocks the handled signals in the calling thread.
void block_handled_signals();

/// Lets every signal through to the calling thread. 0, or an error number.
[[nodiscard]] int clear_thread_signal_mask();

/// How far start-up is, for the SIGTERM action. Written by orvel_main, `sigterm_received` by the action.
struct termination_state {
  std::atomic<int> pipe_ready{0};    ///< `control_pipe` can be written
  std::atomic<int> main_waiting{0};  ///< start-up is over
  std::atomic<int> sigterm_received{0};
  std::atomic<int> control_pipe{-1};  ///< write end, non-blocking
};
static_assert(std::atomic<int>::is_always_lock_free);
extern termination_state termination;
