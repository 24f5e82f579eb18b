#define _GNU_SOURCE
#include "handler.h"

#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

/* Seconds after which a sender that says nothing is given up: while it is waited for, the agent waits. */
enum { silence = 30 };

static int write_all(int target, const char* data, size_t length) {
  while (length > 0) {
    const ssize_t count = write(target, data, length);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return -1;
    data += count;
    length -= (size_t)count;
  }
  return 0;
}

static int copy_to_end(int source, int target) {
  char block[65536];
  for (;;) {
    const ssize_t count = read(source, block, sizeof block);
    if (count == 0) return 0;
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 || write_all(target, block, (size_t)count) != 0) return -1;
  }
}

/* Under its final name, which begins with the time, so that names sort as messages came: 0 or -1. */
static int publish(const char* part, const char* folder) {
  char kept[PATH_MAX];
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  const int length = snprintf(kept, sizeof kept, "%s/%lld%09ld-%s", folder, (long long)now.tv_sec,
                              now.tv_nsec, strrchr(part, '.') + 1);
  if (length < 0 || (size_t)length >= sizeof kept) {
    errno = ENAMETOOLONG;
    return -1;
  }
  return rename(part, kept);
}

static int fill(int source, int target) {
  const int copied = copy_to_end(source, target);
  const int error = errno;
  if (close(target) != 0) return -1;
  errno = error;
  return copied;
}

int keep_message(int source, const char* folder) {
  char part[PATH_MAX];
  const int length = snprintf(part, sizeof part, "%s/.XXXXXX", folder);
  const int target = length > 0 && (size_t)length < sizeof part ? mkstemp(part) : -1;
  if (target < 0) {
    syslog(LOG_ERR, "a message is lost: no file can be made in %s: %m", folder);
    return -1;
  }
  if (fill(source, target) == 0 && publish(part, folder) == 0) return 0;
  syslog(LOG_ERR, "a message is lost: %m");
  unlink(part);
  return -1;
}

int stop_signals(void) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  if (sigprocmask(SIG_BLOCK, &set, NULL) != 0) return -1;
  return signalfd(-1, &set, SFD_CLOEXEC);
}

static void serve_one(int listener, const char* folder) {
  const struct timeval patience = {.tv_sec = silence};
  const int connection = accept4(listener, NULL, NULL, SOCK_CLOEXEC);
  if (connection < 0) {
    if (errno != EAGAIN && errno != ECONNABORTED)
      sleep(1); /* short of memory: later is better than at once */
    return;
  }
  setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  keep_message(connection, folder);
  close(connection);
}

int serve(int listener, int stop, const char* folder) {
  struct pollfd watched[] = {{listener, POLLIN, 0}, {stop, POLLIN, 0}};
  for (;;) {
    if (poll(watched, 2, -1) < 0) {
      if (errno == EINTR) continue;
      syslog(LOG_ERR, "poll: %m");
      return -1;
    }
    if (watched[1].revents != 0) return 0;
    serve_one(listener, folder);
  }
}
