#include "core/daemon.h"

#include "core/log.h"
#include "core/owned.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char log_source[] = "daemon";

using pipe_ptr = std::unique_ptr<FILE, releaser<pclose>>;

// Forks and ends the parent; 0 in the child, -1 when there is none.
int go_on_in_child() {
  std::fflush(stdout);  // or both processes would write what is buffered
  const pid_t child = fork();
  if (child == -1) {
    log_error("fork()\n");
    return -1;
  }
  if (child != 0) _exit(0);
  log_after_fork();
  return 0;
}

void close_inherited_descriptors() {
  const long limit = sysconf(_SC_OPEN_MAX);
  const int count = limit < 0 ? 256 : static_cast<int>(limit);
  if (close_range(0, static_cast<unsigned>(count - 1), 0) == 0) return;
  for (int fd = 0; fd < count; ++fd) {  // kernels before 5.9
    close(fd);
  }
}

// Call with every descriptor closed: the one opened here is standard input already, and stays open.
int open_null_streams() {
  const int null_device = open("/dev/null", O_RDWR);
  if (null_device == -1) {
    log_error("open() %s\n", "/dev/null");
    return -1;
  }
  if (dup2(null_device, STDIN_FILENO) == -1) {
    log_error("dup2() [stdin]\n");
    return -1;
  }
  if (dup2(null_device, STDOUT_FILENO) == -1) {
    log_error("dup2() [stdout]\n");
    return -1;
  }
  if (dup2(null_device, STDERR_FILENO) == -1) {
    log_error("dup2() [stderr]\n");
    return -1;
  }
  return 0;
}

// Appends `size` bytes to the malloc'ed block `*output` of `*length` bytes.
bool append_bytes(void** output, uint32_t* length, const void* bytes, size_t size) {
  if (size > std::numeric_limits<uint32_t>::max() - *length) return false;
  void* grown = std::realloc(*output, *length + size);
  if (grown == nullptr) return false;
  std::memcpy(static_cast<char*>(grown) + *length, bytes, size);
  *output = grown;
  *length += static_cast<uint32_t>(size);
  return true;
}

}  // namespace

int daemonize() {
  if (getppid() == 1) {
    log_info("the process is already daemon.\n");
    return -1;
  }
  if (go_on_in_child() != 0) return -1;
  if (setsid() == -1) {
    log_error("setsid().\n");
    return -1;
  }
  if (std::signal(SIGHUP, SIG_IGN) == SIG_ERR) {
    log_error("signal().\n");
    return -1;
  }
  if (go_on_in_child() != 0) return -1;

  close_inherited_descriptors();
  if (open_null_streams() != 0) return -1;
  umask(0);
  if (chdir("/") == -1) {
    log_error("chdir() %s", "/");  // intended: this text has no line end
    return -1;
  }
  return 0;
}

int exec_ext_app(const char* command, void** output, uint32_t* length) {
  pipe_ptr pipe{popen(command, "re")};
  if (pipe == nullptr) {
    log_error("Can't execute %s.\n", command);
    return -1;
  }
  *output = nullptr;
  *length = 0;
  char piece[1024];
  // A read error ends the loop like the end of the output.
  while (const size_t got = std::fread(piece, 1, sizeof piece, pipe.get())) {
    if (append_bytes(output, length, piece, got)) continue;
    log_error("realloc() in %s.\n", "exec_ext_app");
    std::free(*output);
    *output = nullptr;
    *length = 0;
    return -1;
  }
  if (pclose(pipe.release()) == -1) log_debug("pclose(pipe) set errno to %d value.\n", errno);
  return 0;
}
