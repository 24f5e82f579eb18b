#pragma once

#include <dlfcn.h>

/// The library's own version of a function that this test program defines too:
/// `real_function<decltype(close)>("close")(fd)`.
template <typename function> function* real_function(const char* name) {
  return reinterpret_cast<function*>(dlsym(RTLD_NEXT, name));
}
