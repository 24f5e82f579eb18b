#pragma once

#include <cstddef>

// What the tool and the tests need beyond usi.h. Not installed.

/// Stages the removal of a key from the storage file, so that the profile's value shows; for usiCommit().
/// Returns 0; 1 when neither the storage file nor a staged value holds the key (nothing is staged); or a
/// negative code. `name` must not be null.
int usi_unset(const char* name);

/// Calls `show` for each key that is set: those of the storage file in its order, then those that only the
/// profile holds. Staged values are not shown. Key and value are not terminated; the value is as in the file,
/// escapes included, so that it never holds a line end. `show` must not call the library.
/// Returns 0, or a negative code before the first call of `show`.
int usi_each(void (*show)(void* context, const char* key, size_t key_size, const char* value,
                          size_t value_size),
             void* context);

/// Back to the state at the start of the process: drops staged values, forgets files and choices.
void usi_reset();
