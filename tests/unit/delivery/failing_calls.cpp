#include "failing_calls.h"

#include "real_function.h"
#include "sanitizers.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct hook_state {
  std::atomic<const char*> name{nullptr};
  std::atomic<int> error{0};
  std::atomic<int> times{0};
};
constinit hook_state hook{};

bool fails(const char* name) {
  const char* failing = hook.name;
  return failing != nullptr && std::strcmp(failing, name) == 0 && hook.times > 0 &&
         hook.times.fetch_sub(1) > 0;
}

template <typename result> result failure(result value) {
  errno = hook.error;
  return value;
}

bool is_pipe(int fd) {
  struct stat status {};
  return fstat(fd, &status) == 0 && S_ISFIFO(status.st_mode);
}

}  // namespace

failing_call::failing_call(const char* name, int error, int times) {
  hook.error = error;
  hook.times = times;
  hook.name = name;
}

failing_call::~failing_call() {
  hook.name = nullptr;
}

extern "C" {

int socket(int domain, int type, int protocol) noexcept {
  return fails("socket") ? failure(-1) : real_function<decltype(socket)>("socket")(domain, type, protocol);
}

int close(int fd) {
  const int result = real_function<decltype(close)>("close")(fd);
  return fails("close") ? failure(-1) : result;
}

int pipe2(int* ends, int flags) noexcept {
  return fails("pipe2") ? failure(-1) : real_function<decltype(pipe2)>("pipe2")(ends, flags);
}

// A fork: the child of a real vfork() would return through this frame and destroy it.
pid_t vfork() noexcept {
  return fails("vfork") ? failure(-1) : fork();
}

ssize_t write(int fd, const void* bytes, size_t size) {
  if (!is_pipe(fd) || !fails("write")) return real_function<decltype(write)>("write")(fd, bytes, size);
  return hook.error == 0 ? 0 : failure(-1);
}

long strtol(const char* text, char** end, int base) noexcept {
  return fails("strtol") ? failure(0L) : real_function<decltype(strtol)>("strtol")(text, end, base);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                   void* argument) noexcept {
  if (fails("pthread_create")) return hook.error;
  return real_function<decltype(pthread_create)>("pthread_create")(thread, attributes, body, argument);
}

#if !ORVEL_THREAD_SANITIZER
int pthread_attr_init(pthread_attr_t* attributes) noexcept {
  if (fails("pthread_attr_init")) return hook.error;
  return real_function<decltype(pthread_attr_init)>("pthread_attr_init")(attributes);
}

int pthread_attr_setdetachstate(pthread_attr_t* attributes, int state) noexcept {
  if (fails("pthread_attr_setdetachstate")) return hook.error;
  return real_function<decltype(pthread_attr_setdetachstate)>("pthread_attr_setdetachstate")(attributes,
                                                                                             state);
}

int pthread_attr_destroy(pthread_attr_t* attributes) noexcept {
  if (fails("pthread_attr_destroy")) return hook.error;
  return real_function<decltype(pthread_attr_destroy)>("pthread_attr_destroy")(attributes);
}
#endif

int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
  if (fails("pthread_cond_wait")) return hook.error;
  return real_function<decltype(pthread_cond_wait)>("pthread_cond_wait")(condition, mutex);
}

}  // extern "C"
