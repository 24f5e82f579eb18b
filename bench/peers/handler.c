// A handler that is a program: reads its standard input to the end and passes it on, over one connection, to the Unix
// socket beside it, "NAME.sock". Plain C with few system calls, so that it adds little to what starting it costs.

#include <stdio.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

int main(int argc, char** argv) {
  char message[65536];
  size_t size = 0;
  ssize_t count = 0;
  while (size < sizeof message && (count = read(STDIN_FILENO, message + size, sizeof message - size)) > 0)
    size += (size_t)count;

  struct sockaddr_un address = {.sun_family = AF_UNIX};
  if (argc < 1) return 1;
  snprintf(address.sun_path, sizeof address.sun_path, "%s.sock", argv[0]);
  const int sink = socket(AF_UNIX, SOCK_STREAM, 0);
  if (connect(sink, (const struct sockaddr*)&address, sizeof address) != 0) return 1;
  return write(sink, message, size) == (ssize_t)size ? 0 : 1;
}
