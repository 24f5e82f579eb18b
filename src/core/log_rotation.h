#pragma once

#include <cstddef>
#include <sys/types.h>

// Generations of a log file: NAME is written, NAME.1 is the newest older one, and so on. A detached thread
// compresses them to NAME.n.gz, by way of NAME.n.gz.part. `options.log_rotation_count` generations are kept; a
// negative count works like 0, and one above 10,000 like 10,000.
//
// Several processes may write one log. Who rotates holds an flock(2) lock on the folder until the compression
// has ended; who writes a line holds a shared flock(2) lock on the file, and writes elsewhere when the file has
// lost its name meanwhile; the compression takes an exclusive one on a generation before it reads it. So no
// line, and no generation that is to be kept, gets lost.

/// True when a file of `size` bytes would grow past `options.log_rotation_size` with a line of `line_length`.
[[nodiscard]] bool needs_rotation(off_t size, size_t line_length);

/// Moves every generation of `file` one up, removes what a killed compression left, and starts the thread that
/// compresses them. Does nothing when `file` has room for a line of `line_length` bytes by now, or while an earlier
/// compression still runs, in this process or in another one that rotates a log in the same folder. Never logs. Any
/// thread.
void rotate_log(const char* file, size_t line_length);

/// Body of the compression thread: compresses every plain generation of `base_name` (malloc'ed, taken over),
/// then lets the next rotation in. A generation that can't be compressed stays as it is.
void compress_rotated(char* base_name);

/// Deletes the oldest generation of `file`, plain or compressed. 1 when one was deleted, 0 when none was found.
[[nodiscard]] int delete_oldest_generation(const char* file);

/// In a forked child, before it opens or closes any descriptor: forgets a compression that runs in the parent
/// process only.
void rotation_after_fork();
