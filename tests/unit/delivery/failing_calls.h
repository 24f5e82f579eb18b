#pragma once

// System calls that this test program answers in place of the C library, for failures that can't be had otherwise.
// A hook counts for the whole process, as long as the object lives.

/// The next `times` calls of `name` fail with errno (or the result, for pthread calls) `error`. Names: "socket",
/// "close" (the descriptor is closed all the same), "pipe2", "vfork", "pthread_create", "pthread_attr_init",
/// "pthread_attr_setdetachstate", "pthread_attr_destroy", "pthread_cond_wait", "strtol" (gives 0), and "write" (to
/// pipes; with `error` 0 it gives 0). The thread sanitizer needs the
/// real calls for thread attributes for itself.
struct failing_call {
  failing_call(const char* name, int error, int times = 1);
  ~failing_call();
  failing_call(const failing_call&) = delete;
  failing_call& operator=(const failing_call&) = delete;
};
