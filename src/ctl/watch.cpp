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

/// From now on the signals that end a watch arrive here. One that whoever started this has set to be ignored, as nohup
/// does, stays so.
fd_owner catch_end_signals() {
  sigset_t ends;
  sigemptyset(&ends);
  for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
    struct sigaction present {};
    if (sigaction(number, nullptr, &present) == 0 && present.sa_handler != SIG_IGN) sigaddset(&ends, number);
  }
  sigprocmask(SIG_BLOCK, &ends, nullptr);
  return fd_owner{signalfd(-1, &ends, SFD_CLOEXEC)};
}

int complain_of_settings(int code, const std::string& what) {
  return complain(exit_file,
                  what + " (" + usiStrerror(code) +
                      "): run orvelctl as the user that the agent runs as, or name its settings with -c");
}

/// Changes the endpoints of event_sink to what `change` makes of them. exit_done, or exit_file (complained).
template <typename Change> int change_endpoints(const std::string& storage, Change change) {
  const fd_owner lock = lock_settings(storage);
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
};

void print_document(watcher* self) {
  self->client.reset();
  if (self->document.empty()) return;  // doctor, or another watch, has looked whether somebody listens
  self->output += self->document;
  if (self->output.back() != '\n') self->output += '\n';
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

/// Prints until a signal comes or nobody reads any more. exit_done, or exit_file (complained).
int print_until_told(watcher* self) {
  for (;;) {
    const int source = self->client.valid() ? self->client.get() : self->socket.fd.get();
    const bool has_room = self->output.size() < largest_document;
    const short output_events =
        self->output.empty() ? 0 : POLLOUT;  // and errors: the reader of a pipe has gone
    pollfd watched[] = {{self->signals.get(), POLLIN, 0},
                        {has_room ? source : -1, POLLIN, 0},
                        {STDOUT_FILENO, output_events, 0}};
    if (poll(watched, std::size(watched), -1) < 0) continue;
    if ((watched[2].revents & (POLLERR | POLLHUP)) != 0) return exit_done;
    if ((watched[2].revents & POLLOUT) != 0 && !write_output(self)) {
      return complain(exit_file, std::string{"standard output: "} + std::strerror(errno));
    }
    if (watched[0].revents != 0) return exit_done;
    if (watched[1].revents != 0) take_input(self);
  }
}

}  // namespace

int run_watch(const ctl_command_line& line) {
  watcher self{catch_end_signals(), open_watch_socket(), {}, {}, {}};
  if (!self.signals.valid() || !self.socket.fd.valid()) {
    return complain(exit_file, std::string{"no socket can be made in $XDG_RUNTIME_DIR, /run or /tmp ("} +
                                   std::strerror(errno) + "): make one of these folders writable");
  }
  const std::string storage = storage_path(line.files);
  const std::string& endpoint = self.socket.endpoint;
  int status = change_endpoints(storage, [&endpoint](const std::string& value) {
    return with_endpoint(without_stale_watches(value), endpoint);
  });
  if (status == exit_done) {
    status = print_until_told(&self);
    const int taken_away = change_endpoints(
        storage, [&endpoint](const std::string& value) { return without_endpoint(value, endpoint); });
    if (status == exit_done) status = taken_away;
  }
  remove_watch_files(endpoint);
  return status;
}
