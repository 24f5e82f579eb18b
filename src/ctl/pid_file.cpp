#include "ctl/pid_file.h"

#include "core/owned.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <sys/stat.h>

namespace {

pid_t number_in(int fd) {
  char text[32] = "";
  if (pread(fd, text, sizeof text - 1, 0) < 0) return 0;
  return static_cast<pid_t>(std::strtol(text, nullptr, 10));
}

/// The process that holds a record lock on the file: 0 when nobody does. One that can't be seen from here (it lives in
/// another pid namespace) counts by the number in the file.
pid_t holder_of(int fd) {
  struct flock asked {};
  asked.l_type = F_WRLCK;
  asked.l_whence = SEEK_SET;
  if (fcntl(fd, F_GETLK, &asked) != 0 || asked.l_type == F_UNLCK) return 0;
  return asked.l_pid > 0 ? asked.l_pid : number_in(fd);
}

}  // namespace

pid_file_view look_at_pid_file(const std::string& path) {
  // Anybody may have put something else into /tmp: a pipe there must not hold this up.
  const fd_owner fd{open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)};
  if (!fd.valid() && errno == ENOENT) return {pid_file_state::absent, 0, 0};
  if (!fd.valid()) return {pid_file_state::unreadable, 0, errno};
  struct stat status {};
  if (fstat(fd.get(), &status) != 0) return {pid_file_state::unreadable, 0, errno};
  if (!S_ISREG(status.st_mode)) return {pid_file_state::unreadable, 0, EINVAL};

  const pid_t holder = holder_of(fd.get());
  if (holder > 0) return {pid_file_state::running, holder, 0};
  const pid_t named = number_in(fd.get());
  if (named <= 0) return {pid_file_state::no_number, 0, 0};
  if (kill(named, 0) == 0 || errno != ESRCH) return {pid_file_state::other, named, 0};
  return {pid_file_state::stale, named, 0};
}
