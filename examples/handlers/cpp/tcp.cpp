// A handler on a TCP port of this device, in C++: keeps each message as a file of its own.
//
//   g++ -std=c++20 -O2 -Wall -Wextra -o tcp cpp/tcp.cpp cpp/handler.cpp
//   ./tcp 8600 /var/spool/messages
//   usi -c /etc/orvel/settings set q_handler_meter 127.0.0.1:8600
//
// Runs until SIGTERM or SIGINT. The folder must be there.

#include "handler.h"

#include <charconv>
#include <cstdint>
#include <cstdio>
#include <string_view>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>

namespace {

bool parse(std::string_view text, uint16_t* port) {
  const auto [end, error] = std::from_chars(text.begin(), text.end(), *port);
  return error == std::errc{} && end == text.end();
}

// On loopback only: whoever reaches the port can send messages.
descriptor listen_on(uint16_t port) {
  descriptor listener{socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0), "socket"};
  const int again_at_once = 1;
  setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &again_at_once, sizeof again_at_once);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  check(bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), "bind");
  check(listen(listener.get(), 128), "listen");
  return listener;
}

}  // namespace

int main(int argc, char** argv) {
  uint16_t port = 0;
  if (argc != 3 || !parse(argv[1], &port)) {
    std::fprintf(stderr, "usage: %s PORT FOLDER\n", argv[0]);
    return 2;
  }
  umask(077);
  return run("tcp", [&] {
    const descriptor stop = stop_signals();
    serve(listen_on(port), stop, argv[2]);
  });
}
