#include "failing_system.h"

#include "real_function.h"

#include <cerrno>
#include <pthread.h>
#include <sys/sysinfo.h>

constinit system_refusals refused_by_system{};

extern "C" {

int sysinfo(struct sysinfo* info) noexcept {
  if (!refused_by_system.uptime) return real_function<int(struct sysinfo*)>("sysinfo")(info);
  errno = EFAULT;
  return -1;
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                   void* argument) noexcept {
  if (refused_by_system.threads) return EAGAIN;
  return real_function<decltype(pthread_create)>("pthread_create")(thread, attributes, body, argument);
}

}  // extern "C"
