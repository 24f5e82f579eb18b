#include "delivery/message_sender_delivery.h"

#include "core/log.h"
#include "core/owned.h"
#include "core/sync.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <linux/close_range.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr char log_source[] = "message_sender";

struct started_program {
  pid_t pid;
  started_program* next;
};

// The programs that nobody has waited for yet.
struct program_list {
  sync_mutex lock{lock_rank::leaf};
  started_program* first GUARDED_BY(lock) = nullptr;
};
constinit program_list programs{};

// What a child tells its parent when it can't become the program. A child that can closes the pipe by that.
enum class child_step : int {
  ignore_hangup,
  open_null,
  set_output,
  set_error,
  set_input,
  change_folder,
  execute
};
struct child_failure {
  child_step step;
  int error;
};

// A process without standard descriptors gets their numbers from pipe2(), and the child would overwrite them.
fd_owner move_above_standard(fd_owner fd) {
  if (fd.get() > STDERR_FILENO) return fd;
  return fd_owner{fcntl(fd.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1)};
}

int open_pipe(pipe_ends* pipe) {
  *pipe = make_pipe(O_CLOEXEC);
  if (pipe->valid()) {
    pipe->read_end = move_above_standard(std::move(pipe->read_end));
    pipe->write_end = move_above_standard(std::move(pipe->write_end));
  }
  if (pipe->valid()) return 0;
  log_error("Cannot create pipe. errno: %d.\n", errno);
  return -1;
}

// From here to the exec runs the child of a process with many threads, in that process's memory: no log, no lock,
// nothing from the heap, and nothing is changed that the parent looks at later.

[[noreturn]] void give_up(int report, child_step step) {
  const child_failure failure{step, errno};
  [[maybe_unused]] const ssize_t written = write(report, &failure, sizeof failure);
  _exit(1);
}

// The numbers of signals that the C library keeps for itself are refused, which is right.
void restore_default_actions() {
  for (int number = 1; number < NSIG; ++number) {
    signal(number, SIG_DFL);
  }
}

// Whatever is open above standard error goes with the exec, the report pipe included.
void close_others_on_exec() {
  if (close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC) == 0) return;
  const long limit = sysconf(_SC_OPEN_MAX);  // kernels before 5.11
  for (int fd = STDERR_FILENO + 1; fd < (limit < 0 ? 256 : limit); ++fd) {
    fcntl(fd, F_SETFD, FD_CLOEXEC);
  }
}

// The worker blocks every signal, so none of the agent's handlers runs here before the default actions are back.
[[noreturn]] void become_program(const char* path, int message_read, int message_write, int report) {
  restore_default_actions();
  if (signal(SIGHUP, SIG_IGN) == SIG_ERR) give_up(report, child_step::ignore_hangup);
  const int null_device = open("/dev/null", O_RDWR);
  if (null_device < 0) give_up(report, child_step::open_null);
  if (dup2(null_device, STDOUT_FILENO) < 0) give_up(report, child_step::set_output);
  if (dup2(null_device, STDERR_FILENO) < 0) give_up(report, child_step::set_error);
  close(message_write);
  if (dup2(message_read, STDIN_FILENO) < 0) give_up(report, child_step::set_input);
  umask(0);
  if (chdir("/") != 0) give_up(report, child_step::change_folder);

  close_others_on_exec();
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  // In the GNU library it takes neither a lock nor memory, and it runs a script without a first line "#!" as well.
  execlp(path, path, nullptr);
  give_up(report, child_step::execute);
}

// Whoever looks for ended children while this one wasn't listed yet has missed its end, so that is asked for here.
void list_program(pid_t pid) {
  auto* program =
      static_cast<started_program*>(must_allocate(sizeof(started_program), ALLOCATION("malloc().\n", 1)));
  const scoped_lock lock{programs.lock};
  if (waitpid(pid, nullptr, WNOHANG) != 0) {
    std::free(program);
    return;
  }
  *program = {pid, programs.first};
  programs.first = program;
}

// The child's process id, or -1 (logged). A vfork() costs the same however much memory the agent has; it stands still in
// this thread until the child is the program or has given up.
pid_t start_program(const char* path, const pipe_ends& message, const pipe_ends& report) {
  const pid_t pid = vfork();  // NOLINT(clang-analyzer-security.insecureAPI.vfork)
  if (pid == 0) {
    // NOLINTNEXTLINE(clang-analyzer-unix.Vfork)
    become_program(path, message.read_end.get(), message.write_end.get(), report.write_end.get());
  }
  if (pid < 0) {
    log_error("fork(), errno: %d.\n", errno);  // the name that log readers know
    return -1;
  }
  list_program(pid);
  return pid;
}

// The line that the child may not write itself.
void log_failure(pid_t child, const child_failure& failure, const char* path) {
  switch (failure.step) {
  case child_step::ignore_hangup:
    log_error_as(child, "signal().\n");
    return;
  case child_step::open_null:
    log_error_as(child, "open() %s\n", "/dev/null");
    return;
  case child_step::set_output:
    log_error_as(child, "dup2() [stdout]\n");
    return;
  case child_step::set_error:
    log_error_as(child, "dup2() [stderr]\n");
    return;
  case child_step::set_input:
    log_error_as(child, "dup2(). [stdin], errno: %d.\n", failure.error);
    return;
  case child_step::change_folder:
    // Without a line end, as log readers know it.
    log_error_as(child, "chdir() /");
    return;
  case child_step::execute:
    log_error_as(child, "Cannot execute %s, errno %d.\n", path, failure.error);
    return;
  }
}

// Waits until the child has become the program or has failed, which is logged.
void await_start(pid_t child, pipe_ends report, const char* path) {
  report.write_end.reset();
  child_failure failure{};
  ssize_t count = 0;
  do {
    count = read(report.read_end.get(), &failure, sizeof failure);
  } while (count < 0 && errno == EINTR);
  if (count == ssize_t{sizeof failure}) log_failure(child, failure, path);
}

bool fits_into(int pipe, uint32_t length) {
  const int capacity = fcntl(pipe, F_GETPIPE_SZ);
  return capacity >= 0 && length <= static_cast<uint32_t>(capacity);
}

// The number of bytes written; less than `length` after a failure, which is logged.
size_t write_message(int pipe, const void* data, size_t length) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  size_t written = 0;
  while (written < length) {
    const ssize_t count = write(pipe, bytes + written, length - written);
    if (count > 0) {
      written += static_cast<size_t>(count);
    } else if (count == 0) {
      log_error("connection was closed. Possible error.\n");
      break;
    } else if (errno == EINTR) {
      log_debug("interrupted by signal.\n");
    } else {
      log_error("some error. errno = %d - %s.\n", errno, std::strerror(errno));
      break;
    }
  }
  return written;
}

}  // namespace

void execute_and_send(const char* path, const void* data, uint32_t length) {
  pipe_ends message;
  pipe_ends report;
  if (open_pipe(&message) != 0 || open_pipe(&report) != 0) return;
  const pid_t child = start_program(path, message, report);
  if (child < 0) return;
  await_start(child, std::move(report), path);

  // While this process holds the read end, a program that ends early fails no write; but a message that fills the
  // pipe would then wait for ever.
  if (!fits_into(message.write_end.get(), length)) message.read_end.reset();
  const size_t written = data != nullptr ? write_message(message.write_end.get(), data, length) : 0;
  message.read_end.reset();
  message.write_end.reset();
  if (written < length) {
    log_error("write(). Writed %zu bytes instead of %zu.\n", written, size_t{length});
    return;
  }
  log_debug("Sended %zu bytes to local handler %s.\n", size_t{length}, path);
}

void reap_children() {
  const scoped_lock lock{programs.lock};
  for (started_program** link = &programs.first; *link != nullptr;) {
    started_program* program = *link;
    if (waitpid(program->pid, nullptr, WNOHANG) == 0) {
      link = &program->next;
      continue;
    }
    *link = program->next;
    std::free(program);
  }
}
