#include "ctl/exit_status.h"

#include "ctl/printable.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

int complain(int status, const std::string& text) {
  std::fflush(stdout);
  std::fprintf(stderr, "orvelctl: %s\n", printable(text).c_str());
  return status;
}

int finish_output(int status) {
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return status;
  return complain(exit_file, std::string{"standard output: "} + std::strerror(errno));
}
