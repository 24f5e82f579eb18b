#ifndef HANDLER_H
#define HANDLER_H

/* What the three handlers share. Complaints go to syslog(). */

/* Keeps everything up to the end of `source` as a file in `folder`: 0. What doesn't come in whole is thrown away: -1. */
int keep_message(int source, const char* folder);

/* A descriptor that becomes readable at SIGTERM or SIGINT, which end nothing any more; or -1. */
int stop_signals(void);

/* Serves one connection after the other, each of which is one message, until `stop` is readable. A message that is
 * coming in at that moment is still kept. 0, or -1 when it is over for another reason. The listener is non-blocking. */
int serve(int listener, int stop, const char* folder);

#endif
