#include "core/daemon.h"

#include "core/log.h"
#include "core/owned.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char log_source[] = "daemon";

using file_ptr = std::unique_ptr<FILE, releaser<std::fclose>>;

// Sets or gives back (F_WRLCK, F_UNLCK) the record lock of the whole file, without waiting.
bool set_lock(int fd, short type) {
  struct flock whole_file {};
  whole_file.l_type = type;
  whole_file.l_whence = SEEK_SET;
  return fcntl(fd, F_SETLK, &whole_file) == 0;
}

// Locks the file and writes the process id into it; `path` is its name in the log. 0, or -1 (logged).
int fill(const char* path, int fd) {
  if (!set_lock(fd, F_WRLCK)) {
    log_error("fcntl() %s\n", path);
    return -1;
  }
  char text[16];
  const int length = std::snprintf(text, sizeof text, "%d\n", getpid());
  if (write(fd, text, static_cast<size_t>(length)) == length) return 0;
  log_error("write() %s\n", path);
  return -1;
}

constexpr int not_created = -2;

// Gives `fresh` the name `path`, unless another starter has put a file there meanwhile. Some file systems have no hard
// links, others (and old kernels) no renaming that replaces nothing.
bool give_name(const char* fresh, const char* path) {
  return link(fresh, path) == 0 || renameat2(AT_FDCWD, fresh, AT_FDCWD, path, RENAME_NOREPLACE) == 0;
}

// The descriptor of the new file; -1 after a failure that was logged; not_created when the path is taken or the
// folder takes no file. The file gets its name when it is locked and complete: a starter that is killed half-way must
// leave no pid file without a number, which would stop every later start.
int create_pid_file(const char* path) {
  struct stat present {};
  if (lstat(path, &present) == 0) return not_created;  // before anything is written: the disk may be full
  char fresh[PATH_MAX + 16];  // a name that does not fit is too long for a file anyway
  std::snprintf(fresh, sizeof fresh, "%s.%d", path, getpid());
  unlink(fresh);  // left by a process with the same id
  fd_owner file{open(fresh, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0660)};
  if (!file.valid()) return not_created;
  const int filled = fill(path, file.get());
  const bool named = filled == 0 && give_name(fresh, path);
  if (unlink(fresh) != 0 && errno != ENOENT) log_error("remove_file() %s\n", path);
  if (named) return file.release();
  return filled == 0 ? not_created : -1;
}

// Removes the stale file behind `fd`. Of two starters that find the same one, the lock lets only one do it: the
// other would delete the new file that the first has put in its place by then.
bool remove_stale_file(const char* path, int fd) {
  struct stat opened {};
  struct stat present {};
  return set_lock(fd, F_WRLCK) && fstat(fd, &opened) == 0 && stat(path, &present) == 0 &&
         opened.st_dev == present.st_dev && opened.st_ino == present.st_ino && unlink(path) == 0;
}

// Clears the way for another attempt: 0 if a stale file stood there and was removed, -1 (logged) otherwise.
int make_room(const char* path) {
  if (access(path, F_OK) != 0) {
    log_error("lock file access().\n");
    return -1;
  }
  log_info("opened ok\n");  // Log readers match this text, although it was the creation that failed.
  const file_ptr file{std::fopen(path, "r+e")};
  if (file == nullptr) {
    log_error("Error opening pid file for reading %d\n", errno);
    return -1;
  }
  pid_t pid = 0;
  if (std::fscanf(file.get(), "%8d", &pid) != 1) {  // NOLINT(cert-err34-c): eight digits always fit
    log_error("Error reading data from pid file - possibly data is in wrong format\n");
    return -1;
  }

  errno = 0;
  const int probe = kill(pid, 0);
  const int probe_error = errno;
  log_debug("read from pid file pid %d, kill result is %d, errno is %d\n", pid, probe, probe_error);
  if (probe == 0) {
    log_info("Daemon is already running.\n");
    return -1;
  }
  if (probe_error != ESRCH) {
    log_error("kill(). errno %d\n", probe_error);
    return -1;
  }
  log_info("Remove not associated pid file.\n");
  if (!remove_stale_file(path, fileno(file.get()))) {
    log_error("remove_file() %s\n", path);
    return -1;
  }
  return 0;
}

}  // namespace

int lock_pid_file(const char* path) {
  for (;;) {
    const int fd = create_pid_file(path);
    if (fd != not_created) return fd;
    log_debug("open() %s\n", path);
    if (make_room(path) != 0) return -1;
  }
}

int unlock_pid_file(const char* path, int fd) {
  if (!set_lock(fd, F_UNLCK)) log_error("fcntl() unlock file error %s\n", path);
  if (close(fd) != 0) log_error("close() %s\n", path);
  if (unlink(path) != 0) {
    log_error("remove_file() after unlock %s\n", path);
    return -1;
  }
  return 0;
}
