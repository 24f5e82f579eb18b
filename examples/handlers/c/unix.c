/* A handler on a Unix socket, in C: keeps each message as a file of its own.
 *
 *   gcc -O2 -Wall -Wextra -o unix c/unix.c c/handler.c
 *   ./unix /run/meter.sock /var/spool/messages
 *   usi -c /etc/orvel/settings set q_handler_meter /run/meter.sock
 *
 * Runs until SIGTERM or SIGINT, and takes the socket away. The folder must be there. */

#define _GNU_SOURCE
#include "handler.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

/* A killed predecessor leaves its socket, which would be in the way. Anything else is not ours to remove. */
static void remove_old_socket(const char* path) {
  struct stat found;
  if (lstat(path, &found) == 0 && S_ISSOCK(found.st_mode)) unlink(path);
}

static int listen_at(const char* path) {
  struct sockaddr_un address = {.sun_family = AF_UNIX};
  if (strlen(path) >= sizeof address.sun_path) {
    errno = ENAMETOOLONG;
    return -1;
  }
  strcpy(address.sun_path, path);
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (listener < 0) return -1;
  if (bind(listener, (const struct sockaddr*)&address, sizeof address) != 0) return -1;
  return listen(listener, 128) == 0 ? listener : -1;
}

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: %s SOCKET FOLDER\n", argv[0]);
    return 2;
  }
  openlog("unix", LOG_PID | LOG_PERROR, LOG_USER);
  umask(077); /* the socket is for its owner (and root) only: whoever may connect can send messages */
  const int stop = stop_signals();
  remove_old_socket(argv[1]);
  const int listener = listen_at(argv[1]);
  if (stop < 0 || listener < 0) {
    syslog(LOG_ERR, "can't listen at %s: %m", argv[1]);
    return EXIT_FAILURE;
  }
  const int served = serve(listener, stop, argv[2]);
  unlink(argv[1]);
  return served == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
