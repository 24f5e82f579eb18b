#pragma once

#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

// What the floors under whole paths have in common.

// Ends the program, loudly, unless `done`.
static inline void require(int done, const char* what) {
  if (done) return;
  fprintf(stderr, "%s: %s\n", what, strerror(errno));
  exit(1);
}

static inline int64_t clock_ns(clockid_t clock) {
  struct timespec now;
  clock_gettime(clock, &now);
  return (int64_t)now.tv_sec * 1000000000 + now.tv_nsec;
}

// A message of so many bytes.
static inline char* new_message(size_t size) {
  char* message = malloc(size);
  require(message != NULL, "memory");
  memset(message, 'x', size);
  return message;
}
