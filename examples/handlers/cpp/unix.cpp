// A handler on a Unix socket, in C++: keeps each message as a file of its own.
//
//   g++ -std=c++20 -O2 -Wall -Wextra -o unix cpp/unix.cpp cpp/handler.cpp
//   ./unix /run/meter.sock /var/spool/messages
//   usi -c /etc/orvel/settings set q_handler_meter /run/meter.sock
//
// Runs until SIGTERM or SIGINT, and takes the socket away. The folder must be there.

#include "handler.h"

#include <cerrno>
#include <cstdio>
#include <string>
#include <system_error>
#include <utility>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

namespace {

namespace fs = std::filesystem;

// A listening socket whose file goes with it.
class unix_listener {
public:
  explicit unix_listener(fs::path path)
      : path_{std::move(path)}, socket_{socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0),
                                        "socket"} {
    sockaddr_un address{};
    const std::string& name = path_.native();
    if (name.size() >= sizeof address.sun_path)
      throw std::system_error{ENAMETOOLONG, std::generic_category(), name};
    address.sun_family = AF_UNIX;
    name.copy(address.sun_path, name.size());
    // A killed predecessor leaves its socket, which would be in the way. Anything else is not ours to remove.
    if (fs::is_socket(fs::symlink_status(path_))) fs::remove(path_);
    check(bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), "bind");
    check(listen(socket_.get(), 128), "listen");
  }
  unix_listener(unix_listener&&) = delete;
  unix_listener& operator=(unix_listener&&) = delete;
  ~unix_listener() {
    std::error_code ignored;
    fs::remove(path_, ignored);
  }

  [[nodiscard]] const descriptor& get() const { return socket_; }

private:
  fs::path path_;
  descriptor socket_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s SOCKET FOLDER\n", argv[0]);
    return 2;
  }
  umask(077);  // the socket is for its owner (and root) only: whoever may connect can send messages
  return run("unix", [&] {
    const descriptor stop = stop_signals();
    const unix_listener listener{argv[1]};
    serve(listener.get(), stop, argv[2]);
  });
}
