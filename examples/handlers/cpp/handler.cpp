#include "handler.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include <poll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

namespace {

// After this time a sender that says nothing is given up: while it is waited for, the agent waits.
constexpr timeval silence{.tv_sec = 30, .tv_usec = 0};

// A file that goes away again unless it was published.
class part_file {
public:
  explicit part_file(std::filesystem::path folder)
      : folder_{std::move(folder)}, path_{folder_ / ".XXXXXX"}, file_{mkstemp(path_.data()), "mkstemp"} {}
  part_file(part_file&&) = delete;
  part_file& operator=(part_file&&) = delete;
  ~part_file() {
    if (!path_.empty()) unlink(path_.c_str());
  }

  void write(std::string_view data) {
    while (!data.empty()) {
      const ssize_t count = ::write(file_.get(), data.data(), data.size());
      if (count < 0 && errno == EINTR) continue;
      check(static_cast<int>(count), "write");
      data.remove_prefix(static_cast<size_t>(count));
    }
  }

  // The name begins with the time, so that names sort as messages came.
  void publish() {
    const auto now = std::chrono::system_clock::now().time_since_epoch().count();
    std::filesystem::rename(path_, folder_ / (std::to_string(now) + "-" + path_.substr(path_.size() - 6)));
    path_.clear();
  }

private:
  std::filesystem::path folder_;
  std::string path_;
  descriptor file_;
};

void serve_one(const descriptor& listener, const std::filesystem::path& folder) {
  const int accepted = accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC);
  if (accepted < 0) {
    if (errno != EAGAIN && errno != ECONNABORTED) sleep(1);  // short of memory: later is better than at once
    return;
  }
  const descriptor connection{accepted, "accept"};
  setsockopt(connection.get(), SOL_SOCKET, SO_RCVTIMEO, &silence, sizeof silence);
  try {
    keep_message(connection.get(), folder);
  } catch (const std::exception& error) {
    syslog(LOG_ERR, "a message is lost: %s", error.what());
  }
}

}  // namespace

void check(int result, const char* what) {
  if (result < 0) throw std::system_error{errno, std::generic_category(), what};
}

descriptor::descriptor(int number, const char* what) : number_{number} {
  check(number, what);
}

descriptor::descriptor(descriptor&& other) noexcept : number_{std::exchange(other.number_, -1)} {}

descriptor::~descriptor() {
  if (number_ >= 0) close(number_);
}

void keep_message(int source, const std::filesystem::path& folder) {
  part_file part{folder};
  std::array<char, 65536> block{};
  for (;;) {
    const ssize_t count = read(source, block.data(), block.size());
    if (count == 0) break;
    if (count < 0 && errno == EINTR) continue;
    check(static_cast<int>(count), "read");
    part.write({block.data(), static_cast<size_t>(count)});
  }
  part.publish();
}

descriptor stop_signals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  check(sigprocmask(SIG_BLOCK, &set, nullptr), "sigprocmask");
  return {signalfd(-1, &set, SFD_CLOEXEC), "signalfd"};
}

void serve(const descriptor& listener, const descriptor& stop, const std::filesystem::path& folder) {
  std::array<pollfd, 2> watched{{{listener.get(), POLLIN, 0}, {stop.get(), POLLIN, 0}}};
  for (;;) {
    const int ready = poll(watched.data(), watched.size(), -1);
    if (ready < 0 && errno == EINTR) continue;
    check(ready, "poll");
    if (watched[1].revents != 0) return;
    serve_one(listener, folder);
  }
}

int run(const char* name, const std::function<void()>& work) {
  openlog(name, LOG_PID | LOG_PERROR, LOG_USER);
  try {
    work();
    return EXIT_SUCCESS;
  } catch (const std::exception& error) {
    syslog(LOG_ERR, "%s", error.what());
    return EXIT_FAILURE;
  }
}
