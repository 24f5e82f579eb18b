#pragma once

#include <atomic>
#include <cstdint>

// Process services: detaching, the pid file, the sleep gate, and external commands.

/// Detaches from the terminal: two forks, a session of its own, /dev/null as standard input, output and error,
/// folder "/", file creation mask 0. Returns 0 in the surviving grandchild, -1 on failure (logged); the two
/// parents exit with status 0. Fails when the parent process is init. Call before any thread starts.
[[nodiscard]] int daemonize();

/// Creates `path` with the process id, and locks it (fcntl record lock) for the life of the process. A file that
/// names a dead process is replaced. A starter that is killed meanwhile may leave a file PATH.PID. Returns the open descriptor (close-on-exec), or -1 (logged).
/// The holder must not open the file a second time: closing it would drop the lock.
[[nodiscard]] int lock_pid_file(const char* path);

/// Gives the lock back, closes `fd` and removes the file. 0, or -1 if the file could not be removed (logged).
int unlock_pid_file(const char* path, int fd);

/// Runs a shell command and collects its standard output. 0 with `*output` (malloc'ed, `*length` bytes, not
/// terminated, null when there was none; the caller frees) or -1 (logged). The command's exit status is not
/// reported.
[[nodiscard]] int exec_ext_app(const char* command, void** output, uint32_t* length);

// The sleep gate: one lock and one condition on which every interruptible wait of the process stands. Times are
// monotonic, so that a jump of the wall clock changes no sleep.

/// Ties the calling thread's waits to a flag: while `*keep_going` reads 0 they return at once. Whoever clears the
/// flag calls wake_sleepers() afterwards. Null (every thread's default) unties them.
void wait_only_while(const std::atomic<int>* keep_going);

/// False when the calling thread's flag of wait_only_while() reads 0.
[[nodiscard]] bool thread_may_wait();

/// Sleeps `seconds`, or less when woken.
void sleep_for(int seconds);

/// Waits without time limit until woken. With a `reason`, waits only while `*reason` reads other than 0; that is
/// tested under the gate's lock, so whoever clears it and then calls wake_sleepers() is never missed.
void wait_for_wakeup(const std::atomic<int>* reason);

/// Ends every present sleep_for() and wait_for_wakeup(). Any thread; not for a signal handler.
void wake_sleepers();

/// As wake_sleepers(), and ends every present sleep_forever_interruptable() too: what SIGUSR1 asks for.
void interrupt_sleepers();

/// Sleeps for ever; nothing ends it.
[[noreturn]] void sleep_forever();

/// Sleeps until interrupt_sleepers(), or until the calling thread's flag is cleared.
void sleep_forever_interruptable();
