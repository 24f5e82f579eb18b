/*
 * A commit of settings. No program can do with less if its file must be whole after a power cut, and if several
 * programs change it: lock, write a file beside it, fsync, rename, fsync of the folder. The bytes are ready here;
 * finding the newest ones and merging the change into them is the library's own work and counts against it.
 */
#include "floor/floor.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>
#include <unistd.h>

static int write_durably(const char* name, const char* bytes, size_t size) {
  const int file = open(name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (file < 0) return -1;
  const int done = write(file, bytes, size) == (ssize_t)size && fsync(file) == 0;
  return close(file) == 0 && done ? 0 : -1;
}

static int sync_folder(const char* name) {
  const int folder = open(name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folder < 0) return -1;
  const int done = fsync(folder) == 0;
  return close(folder) == 0 && done ? 0 : -1;
}

int floor_commit(const struct floor_commit_paths* paths, const char* bytes, size_t size) {
  const int lock = open(paths->lock, O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (lock < 0 || flock(lock, LOCK_EX) != 0) return -1;
  const int done = write_durably(paths->temporary, bytes, size) == 0 &&
                   rename(paths->temporary, paths->file) == 0 && sync_folder(paths->folder) == 0;
  return close(lock) == 0 && done ? 0 : -1;
}
