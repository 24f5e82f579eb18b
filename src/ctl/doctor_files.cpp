#include "ctl/doctor_checks.h"

#include "core/owned.h"
#include "ctl/pid_file.h"
#include "usi.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>

namespace {

/// The profile and the config file may be missing; the settings file may not.
finding check_file(const std::string& path, bool is_storage) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    if (errno == ENOENT && !is_storage) return fine(path + " is not there, and need not be");
    return wrong(path + ": " + std::strerror(errno),
                 errno == ENOENT ? "write the device's settings there, or name the file that "
                                   "holds them with -c"
                                 : "run doctor as the user that the agent runs as");
  }
  const fd_owner fd{open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)};
  if (!fd.valid()) {
    return wrong(path + " can't be read: " + std::strerror(errno),
                 "run doctor as the user that the agent runs as, or correct the file's owner and mode");
  }
  return check_mode(path, status.st_mode, is_storage);
}

}  // namespace

finding check_mode(const std::string& path, unsigned mode, bool holds_secrets) {
  char octal[16];
  std::snprintf(octal, sizeof octal, "%04o", mode & 07777U);
  if (!S_ISREG(mode)) return wrong(path + " is not a file", "put a file in its place, or name another one");
  if (holds_secrets && (mode & 077U) != 0) {
    return wrong(path + " has mode " + octal + ", but holds the claim code and maybe a proxy's password",
                 "chmod 600 " + path);
  }
  if ((mode & 022U) != 0)
    return wrong(path + " has mode " + octal + ": others may change it", "chmod go-w " + path);
  return fine(path + ", mode " + octal);
}

findings check_files(const ctl_command_line& line) {
  findings found;
  found.push_back(check_file(storage_path(line.files), true));
  found.push_back(check_file(usiGetCurrentProfile(), false));
  found.push_back(check_file(usiGetCurrentConfig(), false));
  const setting any = read_setting("q_register_url");
  if (any.code < 0) {
    found.push_back(wrong(std::string{"the settings can't be read: "} + usiStrerror(any.code),
                          "correct the files above; what follows takes all settings for missing"));
  }
  return found;
}

finding check_pid_file(const std::string& path) {
  const pid_file_view view = look_at_pid_file(path);
  const std::string pid = std::to_string(view.pid);
  switch (view.state) {
  case pid_file_state::absent:
    return fine(path + " is not there: the agent is not running");
  case pid_file_state::running:
    return fine(path + ": the agent runs as process " + pid);
  case pid_file_state::stale:
    return wrong(path + " is stale: process " + pid + " has ended without removing it",
                 "start the agent, which replaces the file");
  case pid_file_state::other:
    return wrong(path + " names process " + pid +
                     ", which runs but does not hold the file: it is not the agent, and "
                     "the agent will not start while it is there",
                 "rm " + path);
  case pid_file_state::no_number:
    return wrong(path + " holds no process id: the agent will not start while it is there", "rm " + path);
  case pid_file_state::unreadable:
    break;
  }
  return wrong(path + " can't be read: " + std::strerror(view.error),
               "run doctor as the user that the agent runs as");
}
