/* A handler that the agent starts for each message, in C: keeps the message as a file of its own.
 *
 *   gcc -O2 -Wall -Wextra -o executable c/executable.c c/handler.c
 *   usi -c /etc/orvel/settings set q_handler_meter /usr/local/lib/handlers/executable
 *
 * The files are made in $HANDLER_FOLDER of the agent's environment, or else in /var/spool/messages, which must be
 * there. A file appears under its final name when its message is whole; until then its name begins with a dot. */

#include "handler.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

int main(void) {
  const char* folder = getenv("HANDLER_FOLDER");
  openlog("executable", LOG_PID | LOG_PERROR, LOG_USER); /* under the agent, standard error is /dev/null */
  umask(077);                                            /* the agent starts programs with mask 0 */
  return keep_message(STDIN_FILENO, folder ? folder : "/var/spool/messages") == 0 ? EXIT_SUCCESS
                                                                                  : EXIT_FAILURE;
}
