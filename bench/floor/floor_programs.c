// The floor under delivery to a program: for each message look up which, then pipe, fork, exec, write, and reap what
// has ended.
//
// The least that a delivery can be: every message needs a process of its own. The setting may change between two of
// them, so it is read each time (by the same library, which asks the file's status), and so is the status of the path,
// which may name a socket. The child's standard input is all that is prepared for it. Nothing is received, parsed or
// queued, and the process that is forked is as small as this program.
//
// usage: floor_programs SETTINGS KEY COUNT SIZE [vfork]      prints the nanosecond (monotonic) of its beginning

#define _GNU_SOURCE  // pipe2()
#include "path_floor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <usi.h>

static void become(const char* path, const int* pipe_ends) {
  dup2(pipe_ends[0], STDIN_FILENO);
  execl(path, path, (char*)NULL);
  _exit(1);
}

static void start(const char* path, const int* pipe_ends, int borrow_memory) {
  const pid_t child = borrow_memory ? vfork() : fork();
  require(child >= 0, "fork");
  if (child == 0) become(path, pipe_ends);
}

static void deliver(const char* key, const void* message, size_t size, int borrow_memory) {
  char* path = NULL;
  struct stat status;
  int pipe_ends[2];
  require(usiGet(key, &path, 1024) == 0 && path != NULL, "setting");
  require(stat(path, &status) == 0 && S_ISREG(status.st_mode), "path");
  require(pipe2(pipe_ends, O_CLOEXEC) == 0, "pipe");
  start(path, pipe_ends, borrow_memory);
  free(path);
  require(write(pipe_ends[1], message, size) == (ssize_t)size, "write");
  close(pipe_ends[0]);
  close(pipe_ends[1]);
}

int main(int argc, char** argv) {
  require(argc == 5 || (argc == 6 && strcmp(argv[5], "vfork") == 0), "usage");
  usiSetStorageFile(argv[1]);
  const long count = atol(argv[3]);
  const size_t size = (size_t)atol(argv[4]);
  const char* message = new_message(size);
  char* endpoint = NULL;
  require(usiGet(argv[2], &endpoint, 1024) == 0, "setting");  // the settings are loaded before the time runs
  free(endpoint);

  const int64_t begun = clock_ns(CLOCK_MONOTONIC);
  for (long number = 0; number < count; ++number) {
    deliver(argv[2], message, size, argc == 6);
    while (waitpid(-1, NULL, WNOHANG) > 0) {
    }
  }
  while (waitpid(-1, NULL, 0) > 0) {
  }
  printf("%lld\n", (long long)begun);
  return 0;
}
