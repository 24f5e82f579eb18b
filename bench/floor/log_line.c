/*
 * A log line to the file. A log that may be moved or removed at any time is opened for each line, and one that is
 * limited in size is asked for its size: stat, open, write, close. The line is ready here; putting it together is the
 * agent's own work and counts against it, and so do its locks.
 */
#include "floor/floor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

int floor_log_line(const char* name, const char* line, size_t length) {
  struct stat status;
  if (stat(name, &status) != 0) return -1;
  const int file = open(name, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
  if (file < 0) return -1;
  const ssize_t written = write(file, line, length);
  if (close(file) != 0) return -1;
  return written == (ssize_t)length ? 0 : -1;
}
