#include "core/orvel_text.h"

#include "core/owned.h"

#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

void str_append(char** dst, const char* piece) {
  const size_t held = *dst != nullptr ? std::strlen(*dst) : 0;
  const size_t added = std::strlen(piece);
  if (held + added == 0) return;
  auto* grown = static_cast<char*>(std::realloc(*dst, held + added + 1));
  if (grown == nullptr) return;
  std::memcpy(grown + held, piece, added + 1);
  *dst = grown;
}

char* resolve_link(const char* path) {
  struct stat link {};
  if (lstat(path, &link) != 0) return nullptr;
  const auto size = static_cast<size_t>(link.st_size);
  c_string target{static_cast<char*>(std::malloc(size + 1))};
  if (!target) return nullptr;
  const ssize_t length = readlink(path, target.get(), size + 1);
  if (length < 0 || static_cast<size_t>(length) > size) return nullptr;
  // A link that shrank since it was looked at ends where it ends now.
  target.get()[length] = '\0';
  return target.release();
}
