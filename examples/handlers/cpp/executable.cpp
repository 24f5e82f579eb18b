// A handler that the agent starts for each message, in C++: keeps the message as a file of its own.
//
//   g++ -std=c++20 -O2 -Wall -Wextra -o executable cpp/executable.cpp cpp/handler.cpp
//   usi -c /etc/orvel/settings set q_handler_meter /usr/local/lib/handlers/executable
//
// The files are made in $HANDLER_FOLDER of the agent's environment, or else in /var/spool/messages, which must be
// there. A file appears under its final name when its message is whole; until then its name begins with a dot.

#include "handler.h"

#include <cstdlib>

#include <sys/stat.h>
#include <unistd.h>

int main() {
  const char* folder = std::getenv("HANDLER_FOLDER");
  umask(077);  // the agent starts programs with mask 0
  return run("executable", [&] { keep_message(STDIN_FILENO, folder ? folder : "/var/spool/messages"); });
}
