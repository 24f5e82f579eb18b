#include "ctl/watch.h"

#include "ctl/exit_status.h"
#include "ctl/watch_endpoint.h"
#include "usi.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>

namespace {

constexpr char event_sink_key[] = "q_handler_event_sink";
constexpr size_t largest_document = size_t{1024} * 1024;
constexpr size_t most_output = size_t{1024} * 1024;

/// From now on the signals that end a watch arrive here. Ctrl-Z is one: a stopped watch would hold up the agent. One that
/// whoever started this has set to be ignored, as nohup does, stays so.
fd_owner catch_end_signals() {
  sigset_t ends;
  sigemptyset(&ends);
  for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP}) {
    struct sigaction present {};
    if (sigaction(number, nullptr, &present) == 0 && present.sa_handler != SIG_IGN) sigaddset(&ends, number);
  }
  sigprocmask(SIG_BLOCK, &ends, nullptr);
  return fd_owner{signalfd(-1, &ends, SFD_CLOEXEC)};
}

int complain_of_lock(int error) {
  if (error == EINTR) return exit_done;  // as it was asked to
  if (error == EWOULDBLOCK) {
    return complain(exit_timeout, "another orvelctl keeps changing the settings: try again");
  }
  return complain(exit_file,
                  std::string{"the settings' folder can't be opened ("} + std::strerror(error) +
                      "): run orvelctl as the user that the agent runs as, or name its settings with -c");
}

int complain_of_settings(int code, const std::string& what) {
  return complain(exit_file,
                  what + " (" + usiStrerror(code) +
                      "): run orvelctl as the user that the agent runs as, or name its settings with -c");
}

/// Changes the endpoints of event_sink to what `change` makes of them. exit_done, or exit_file (complained).
template <typename Change> int change_endpoints(Change change) {
  const setting present = read_setting(event_sink_key);
  if (present.code < 0) return complain_of_settings(present.code, "the settings can't be read");
  const std::string changed = change(present.value);
  if (changed.size() > longest_endpoints && changed.size() > present.value.size()) {
    return complain(exit_file,
                    std::string{event_sink_key} +
                        " has no room for another endpoint: end another watch, or shorten its value");
  }
  const int code = write_setting(event_sink_key, changed);
  return code < 0 ? complain_of_settings(code, "the settings can't be changed") : exit_done;
}

struct watcher {
  fd_owner signals;
  watch_socket socket;
  fd_owner client;  ///< the connection that is being read: one document
  std::string document;
  std::string output;  ///< what standard output has not taken yet
  size_t dropped;      ///< documents, for want of room there
};

void print_document(watcher* self) {
  self->client.reset();
  if (self->document.empty()) return;  // doctor, or another watch, has looked whether somebody listens
  if (self->output.empty() || self->output.size() + self->document.size() <= most_output) {
    self->output += self->document;
    if (self->output.back() != '\n') self->output += '\n';
  } else {
    ++self->dropped;  // the agent must not wait for whoever reads this
  }
  self->document.clear();
}

void read_client(watcher* self) {
  char block[4096];
  const ssize_t count = read(self->client.get(), block, sizeof block);
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (count > 0 && self->document.size() < largest_document) {
    self->document.append(block, static_cast<size_t>(count));
  } else {
    print_document(self);
  }
}

void take_input(watcher* self) {
  if (self->client.valid()) {
    read_client(self);
  } else {
    self->client.reset(accept4(self->socket.fd.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  }
}

/// Writes no more than a pipe that is ready takes at once: the signals wait while this process does. False with errno
/// when standard output takes no more.
bool write_output(watcher* self) {
  const ssize_t count =
      write(STDOUT_FILENO, self->output.data(), std::min<size_t>(self->output.size(), PIPE_BUF));
  if (count < 0) return errno == EAGAIN || errno == EINTR;
  self->output.erase(0, static_cast<size_t>(count));
  return true;
}

/// The next signal is another one.
int take_signal(int signals) {
  signalfd_siginfo taken{};
  return read(signals, &taken, sizeof taken) < 0 ? complain(exit_file, std::strerror(errno)) : exit_done;
}

/// Prints until a signal comes or nobody reads any more. exit_done, or exit_file (complained).
int print_until_told(watcher* self) {
  for (;;) {
    const int source = self->client.valid() ? self->client.get() : self->socket.fd.get();
    const short output_events =
        self->output.empty() ? 0 : POLLOUT;  // and errors: the reader of a pipe has gone
    pollfd watched[] = {
        {self->signals.get(), POLLIN, 0}, {source, POLLIN, 0}, {STDOUT_FILENO, output_events, 0}};
    if (poll(watched, std::size(watched), -1) < 0) continue;
    if ((watched[2].revents & (POLLERR | POLLHUP)) != 0) return exit_done;
    if ((watched[2].revents & POLLOUT) != 0 && !write_output(self)) {
      return complain(exit_file, std::string{"standard output: "} + std::strerror(errno));
    }
    if (watched[0].revents != 0) return take_signal(self->signals.get());
    if (watched[1].revents != 0) take_input(self);
  }
}

/// False, with the exit status, when there is nothing to watch for: that failed (complained), or a signal came.
bool add_endpoint(const std::string& storage, const watcher& self, int* status) {
  const fd_owner lock = lock_settings(storage, self.signals.get());
  if (!lock.valid()) {
    *status = complain_of_lock(errno);
    return false;
  }
  *status = change_endpoints([&self](const std::string& value) {
    return with_endpoint(without_stale_watches(value), self.socket.endpoint);
  });
  return *status == exit_done;
}

/// Another signal ends the waiting for other processes.
int take_endpoint_away(const std::string& storage, const watcher& self) {
  const fd_owner lock = lock_settings(storage, self.signals.get());
  if (!lock.valid()) {
    complain(exit_done, std::string{event_sink_key} + " is changed without waiting for another orvelctl, "
                                                      "whose change may get lost: look at it");
  }
  return change_endpoints(
      [&self](const std::string& value) { return without_endpoint(value, self.socket.endpoint); });
}

}  // namespace

int run_watch(const ctl_command_line& line) {
  const std::string storage = storage_path(line.files);
  std::string problems;
  watcher self{catch_end_signals(), open_watch_socket(watch_folders(storage), &problems), {}, {}, {}, 0};
  if (!self.signals.valid()) return complain(exit_file, std::string{"signalfd: "} + std::strerror(errno));
  if (!self.socket.fd.valid()) {
    return complain(exit_file,
                    "no socket can be made (" + problems +
                        "): set XDG_RUNTIME_DIR to a folder that only you can write to, in folders "
                        "that only root and you can write to");
  }
  int status = exit_done;
  if (add_endpoint(storage, self, &status)) {
    status = print_until_told(&self);
    const int taken_away = take_endpoint_away(storage, self);
    if (status == exit_done) status = taken_away;
  }
  remove_watch_files(self.socket.endpoint);
  if (self.dropped == 0) return status;
  return complain(exit_file, "documents were dropped, since nobody took those before from standard output: " +
                                 std::to_string(self.dropped));
}
