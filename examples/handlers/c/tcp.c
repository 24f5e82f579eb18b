/* A handler on a TCP port of this device, in C: keeps each message as a file of its own.
 *
 *   gcc -O2 -Wall -Wextra -o tcp c/tcp.c c/handler.c
 *   ./tcp 8600 /var/spool/messages
 *   usi -c /etc/orvel/settings set q_handler_meter 127.0.0.1:8600
 *
 * Runs until SIGTERM or SIGINT. The folder must be there. */

#define _GNU_SOURCE
#include "handler.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>

/* On loopback only: whoever reaches the port can send messages. */
static int listen_on(in_port_t port) {
  const int again_at_once = 1;
  const struct sockaddr_in address = {
      .sin_family = AF_INET, .sin_port = htons(port), .sin_addr.s_addr = htonl(INADDR_LOOPBACK)};
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (listener < 0) return -1;
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &again_at_once, sizeof again_at_once);
  if (bind(listener, (const struct sockaddr*)&address, sizeof address) != 0) return -1;
  return listen(listener, 128) == 0 ? listener : -1;
}

int main(int argc, char** argv) {
  char* end = NULL;
  const long port = argc == 3 ? strtol(argv[1], &end, 10) : -1;
  if (port < 0 || port > 65535 || *end != '\0') {
    fprintf(stderr, "usage: %s PORT FOLDER\n", argv[0]);
    return 2;
  }
  openlog("tcp", LOG_PID | LOG_PERROR, LOG_USER);
  umask(077);
  const int stop = stop_signals();
  const int listener = listen_on((in_port_t)port);
  if (stop < 0 || listener < 0) {
    syslog(LOG_ERR, "can't listen on port %ld: %m", port);
    return EXIT_FAILURE;
  }
  return serve(listener, stop, argv[2]) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
