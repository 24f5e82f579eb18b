#include "failing_system.h"

#include <cerrno>
#include <dlfcn.h>
#include <pthread.h>
#include <sys/sysinfo.h>

constinit system_refusals refused_by_system{};

namespace {

template <typename function> function* library(const char* name) {
  return reinterpret_cast<function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

int sysinfo(struct sysinfo* info) noexcept {
  if (!refused_by_system.uptime) return library<int(struct sysinfo*)>("sysinfo")(info);
  errno = EFAULT;
  return -1;
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                   void* argument) noexcept {
  if (refused_by_system.threads) return EAGAIN;
  return library<decltype(pthread_create)>("pthread_create")(thread, attributes, body, argument);
}

}  // extern "C"
