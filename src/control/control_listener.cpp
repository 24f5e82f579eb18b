#include "control/control_listener.h"

#include "cloud/logic_state.h"
#include "core/exit_process.h"
#include "core/log.h"
#include "core/options.h"
#include "core/owned.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr char log_source[] = "control_listener";

constexpr int backlog = 5;
constexpr size_t chunk_size = 256;
// No command comes near this. A client that sends more is read no further, and what came so far is its request.
constexpr size_t request_limit = size_t{4} << 20;

// Written before the thread that reads it starts.
struct listener_state {
  AgentSettings* settings = nullptr;
  int pipe_read_end = -1;
};
constinit listener_state listener{};

// --- one client

// Room for `needed` bytes in `*text`. It grows in doubling steps: a long request may come in very small pieces.
void make_room(c_string* text, size_t* room, size_t needed) {
  if (needed <= *room) return;
  *room = std::max(needed, *room * 2);
  auto* grown = static_cast<char*>(std::realloc(text->get(), *room));
  if (grown == nullptr) allocation_failed(ALLOCATION("realloc().\n", -1));
  static_cast<void>(text->release());  // realloc took it
  text->reset(grown);
}

// Everything that the client sends until it closes its side, terminated; null when it sent nothing.
c_string read_request(int client) {
  c_string text;
  size_t room = 0;
  size_t length = 0;
  char chunk[chunk_size];
  while (length < request_limit) {
    const ssize_t count = read(client, chunk, std::min(sizeof chunk, request_limit - length));
    if (count <= 0) break;
    const auto size = static_cast<size_t>(count);
    make_room(&text, &room, length + size + 1);
    std::memcpy(text.get() + length, chunk, size);
    length += size;
    text.get()[length] = '\0';
  }
  return text;
}

// A client that doesn't wait for its answer must not end the process by SIGPIPE.
void reply(int client, int result) {
  char text[32];
  const int length = std::snprintf(text, sizeof text, "{\"result\":%d}", result);
  if (send(client, text, static_cast<size_t>(length), MSG_NOSIGNAL) < 0) {
    log_error("write() error %d writing back to client\n", errno);
  }
}

void serve_client(int client) {
  const c_string received = read_request(client);
  const char* text = received ? received.get() : "";
  log_debug("Received message %s.\n", text);
  const int result = execute_request_text(text, listener.settings);
  log_debug("Command execution result is %d\n", result);
  reply(client, result);
}

// --- the listener thread

void set_reuse_options(int listening) {
  const int on = 1;
  if (setsockopt(listening, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
    log_error("cannot set SO_REUSEADDR option");
  }
  if (setsockopt(listening, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on) != 0) {
    log_error("cannot set SO_REUSEPORT option");
  }
}

// The listening socket, or -1. A socket that can't be bound or listened on stays open, on purpose: the thread ends
// and nobody opens another one.
int open_listening_socket() {
  const int listening = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listening < 0) {
    log_error("socket(). errno: %d.\n", errno);
    return -1;
  }
  set_reuse_options(listening);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(options.control_port);
  inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
  if (bind(listening, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    log_error("bind(). errno: %d.\n", errno);
    return -1;
  }
  if (listen(listening, backlog) != 0) {
    log_error("listen(). errno: %d.\n", errno);
    return -1;
  }
  return listening;
}

char read_pipe_byte() {
  log_debug("received message in control listener pipe!\n");
  char byte = 0;
  if (read(listener.pipe_read_end, &byte, sizeof byte) < 0) log_error("read() error %d from pipe\n", errno);
  return byte;
}

// Serves clients, one at a time, until a byte arrives in the control pipe: its value, or 0 when the listener can't
// go on.
char serve_until_told(int listening) {
  pollfd watched[] = {{listening, POLLIN, 0}, {listener.pipe_read_end, POLLIN, 0}};
  for (;;) {
    if (poll(watched, std::size(watched), -1) < 0) {
      if (errno == EINTR) continue;
      log_error("select(). errno: %d.\n", errno);  // the name that log readers know
      return 0;
    }
    if (watched[0].revents != 0) {
      const fd_owner client{accept4(listening, nullptr, nullptr, SOCK_CLOEXEC)};
      if (client.valid()) {
        serve_client(client.get());
      } else if (errno != EINTR) {
        log_error("accept(). errno: %d.\n", errno);
        return 0;
      }
    } else if (watched[1].revents != 0) {
      return read_pipe_byte();
    }
  }
}

void* listener_thread(void* /*argument*/) {
  log_debug("start control listener thread.\n");
  const int listening = open_listening_socket();
  if (listening < 0) return nullptr;
  const char command = serve_until_told(listening);  // model: listener.told
  close(listening);
  log_debug("end control listener thread.\n");
  if (command == control_exit_process) {
    log_info("received command from orvel thread to call exit()");
    finish_state_record();
    exit_process(0);  // model: listener.exit
  }
  return nullptr;
}

}  // namespace

pthread_t start_control_listener(AgentSettings* settings, int pipe_read_end) {
  listener.settings = settings;
  listener.pipe_read_end = pipe_read_end;
  pthread_t thread = 0;
  if (pthread_create(&thread, nullptr, listener_thread, nullptr) != 0) return 0;
  return thread;
}
