#include "sink.h"

#include "peer.h"

#include <algorithm>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr int backlog = 4096;

void listen_tcp(sink* place) {
  place->listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  // A close then resets the connection, which both ends have ended by then: none of the many that a run makes is
  // left waiting in the system, where they would soon take all of its ports.
  const linger at_once{1, 0};
  setsockopt(place->listener, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  require(bind(place->listener, reinterpret_cast<sockaddr*>(&address), size) == 0, "bind");
  require(getsockname(place->listener, reinterpret_cast<sockaddr*>(&address), &size) == 0, "getsockname");
  place->endpoint = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
}

void listen_unix(sink* place, const char* path) {
  place->listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  require(std::strlen(path) < sizeof address.sun_path, "path of the socket");
  std::strncpy(address.sun_path, path, sizeof address.sun_path - 1);
  require(bind(place->listener, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0, "bind");
  place->endpoint = path;
}

void take_message(int listener, int64_t size) {
  static unsigned char bytes[65536];
  const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
  require(fd >= 0, "accept");
  int64_t total = 0;
  while (const ssize_t count = read(fd, bytes, sizeof bytes)) {
    require(count > 0, "read");
    total += count;
  }
  require(total == size, "a message of another size");
  close(fd);
}

void take_all(sink* place, int64_t count, int64_t size) {
  for (int64_t number = 1; number <= count; ++number) {
    take_message(place->listener, size);
    if (number == count) place->ended = monotonic_ns();
    place->received.store(number);
    if (number == place->wanted.load()) place->received.notify_one();
  }
}

}  // namespace

void sink_listen(sink* place, const char* path) {
  if (path == nullptr) {
    listen_tcp(place);
  } else {
    listen_unix(place, path);
  }
  require(listen(place->listener, backlog) == 0, "listen");
}

void sink_begin(sink* place, int64_t count, int64_t size) {
  place->received = 0;
  place->wanted = count;
  place->thread = std::thread{take_all, place, count, size};
}

void sink_await(sink* place, int64_t count) {
  place->wanted.store(count);
  for (int64_t seen = place->received.load(); seen < count; seen = place->received.load()) {
    place->received.wait(seen);
  }
}

int64_t sink_end(sink* place) {
  place->thread.join();
  return place->ended;
}
