// The floor under delivery to a socket: for each message look up where it goes, then socket, connect, send, close.
//
// The least that a delivery can be: every message needs a connection of its own, and the setting may change between two
// of them, so it is read each time (by the same library, which asks the file's status). A path may name a program,
// so its status is asked for, too. The messages lie in memory already; nothing is received, parsed or queued.
// With LINES, so many lines for each message go to the log file.
//
// usage: floor_sockets SETTINGS KEY COUNT SIZE [LOGFILE LINES]      prints the nanosecond (monotonic) of its beginning

#include "floor/floor.h"
#include "path_floor.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <usi.h>

static const char log_line[] =
    "2026-01-01 00:00:00 (12345):message_sender:12\t   INFO: Sent to handler 256 bytes.\n";

static int connect_tcp(const char* host, const char* port) {
  struct sockaddr_in address = {.sin_family = AF_INET, .sin_port = htons((uint16_t)atoi(port))};
  require(inet_pton(AF_INET, host, &address.sin_addr) == 1, "address");
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  require(connect(fd, (const struct sockaddr*)&address, sizeof address) == 0, "connect");
  return fd;
}

static int connect_unix(const char* path) {
  struct stat status;
  require(stat(path, &status) == 0 && !S_ISREG(status.st_mode), "path");
  struct sockaddr_un address = {.sun_family = AF_UNIX};
  memcpy(address.sun_path, path, strlen(path));
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  require(connect(fd, (const struct sockaddr*)&address, sizeof address) == 0, "connect");
  return fd;
}

static void deliver(const char* key, const void* message, size_t size) {
  char* endpoint = NULL;
  require(usiGet(key, &endpoint, 1024) == 0 && endpoint != NULL, "setting");
  char* colon = strchr(endpoint, ':');
  if (colon != NULL) *colon = '\0';
  const int fd = colon != NULL ? connect_tcp(endpoint, colon + 1) : connect_unix(endpoint);
  free(endpoint);
  require(send(fd, message, size, MSG_NOSIGNAL) == (ssize_t)size, "send");
  require(close(fd) == 0, "close");
}

int main(int argc, char** argv) {
  require(argc == 5 || argc == 7, "usage");
  usiSetStorageFile(argv[1]);
  const char* key = argv[2];
  const long count = atol(argv[3]);
  const size_t size = (size_t)atol(argv[4]);
  const int lines = argc == 7 ? atoi(argv[6]) : 0;
  const char* message = new_message(size);
  char* endpoint = NULL;
  require(usiGet(argv[2], &endpoint, 1024) == 0, "setting");  // the settings are loaded before the time runs
  free(endpoint);

  const int64_t begun = clock_ns(CLOCK_MONOTONIC);
  for (long number = 0; number < count; ++number) {
    deliver(key, message, size);
    for (int left = lines; left > 0; --left)
      require(floor_log_line(argv[5], log_line, sizeof log_line - 1) == 0, "log file");
  }
  printf("%lld\n", (long long)begun);
  return 0;
}
