#include "core/owned.h"

#include "core/exit_process.h"
#include "core/log.h"

#include <cstring>

void allocation_failed(const allocation_site& site) {
  log_write(level_error, site.source, site.line, "%s", site.text);
  exit_process(site.status);
}

void* must_allocate(size_t size, const allocation_site& site) {
  void* block = std::malloc(size != 0 ? size : 1);
  if (block == nullptr) allocation_failed(site);
  return block;
}

char* must_copy(const char* text, const allocation_site& site) {
  const size_t size = std::strlen(text) + 1;
  return static_cast<char*>(std::memcpy(must_allocate(size, site), text, size));
}

char* must_copy_if_any(const char* text, const allocation_site& site) {
  return text != nullptr ? must_copy(text, site) : nullptr;
}
