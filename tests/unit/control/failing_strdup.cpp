#include "failing_strdup.h"

#include <cstdlib>
#include <cstring>

namespace {

thread_local bool failing = false;

}  // namespace

failing_strdup::failing_strdup() {
  failing = true;
}
failing_strdup::~failing_strdup() {
  failing = false;
}

// Stands before the C library's.
extern "C" char* strdup(const char* text) noexcept {
  if (failing) return nullptr;
  const size_t size = std::strlen(text) + 1;
  void* copy = std::malloc(size);
  return copy != nullptr ? static_cast<char*>(std::memcpy(copy, text, size)) : nullptr;
}
