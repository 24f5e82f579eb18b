#undef _FORTIFY_SOURCE  // its inline versions of the functions below would be defined twice
#include "usi_faults.h"

#include "real_function.h"
#include "sanitizers.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int most_calls = 1000;

struct fault_state {
  bool armed;
  fault_plan plan;
  int calls;
  const char* names[most_calls];
};

// Of one thread: other threads' calls pass through.
constinit thread_local fault_state state{};

/// Records a call. True when it is the one that the plan is about.
bool is_chosen(const char* name) {
  if (!state.armed) return false;
  if (state.calls < most_calls) state.names[state.calls] = name;
  return ++state.calls == state.plan.at;
}

[[noreturn]] void die() {
  kill(getpid(), SIGKILL);
  abort();
}

/// True when the call must fail; errno is set then.
bool fails(const char* name, bool* dies_afterwards) {
  *dies_afterwards = false;
  if (!is_chosen(name)) return false;
  if (state.plan.kind == fault_kind::kill_before) die();
  *dies_afterwards = state.plan.kind == fault_kind::kill_after;
  if (state.plan.kind != fault_kind::fail) return false;
  errno = state.plan.error;
  return true;
}

template <typename Result, typename Call> Result pass(const char* name, Result failure, Call call) {
  bool dies = false;
  if (fails(name, &dies)) return failure;
  Result result = call();
  if (dies) die();
  return result;
}

size_t shortened(size_t size) {
  const bool is_short =
      state.armed && state.plan.kind == fault_kind::short_io && state.calls >= state.plan.at;
  return is_short ? std::min<size_t>(size, 3) : size;
}

}  // namespace

#define REAL(name) static const auto real = real_function<decltype(name)>(#name)

void faults_arm(const fault_plan& plan) {
  state.plan = plan;
  state.calls = 0;
  state.armed = true;
}

std::vector<std::string> faults_disarm() {
  state.armed = false;
  return {state.names, state.names + std::min(state.calls, most_calls)};
}

bool faults_reach_allocations() {
  return !under_sanitizer;
}

extern "C" {

int open64(const char* path, int flags, ...) {
  REAL(open64);
  va_list more;
  va_start(more, flags);
  const mode_t mode = flags & O_CREAT ? va_arg(more, mode_t) : 0;
  va_end(more);
  return pass("open", -1, [&] { return real(path, flags, mode); });
}

int openat64(int folder, const char* path, int flags, ...) {
  REAL(openat64);
  va_list more;
  va_start(more, flags);
  const mode_t mode = flags & O_CREAT ? va_arg(more, mode_t) : 0;
  va_end(more);
  return pass("openat", -1, [&] { return real(folder, path, flags, mode); });
}

ssize_t read(int fd, void* to, size_t size) {
  REAL(read);
  return pass("read", ssize_t{-1}, [&] { return real(fd, to, shortened(size)); });
}

ssize_t write(int fd, const void* from, size_t size) {
  REAL(write);
  return pass("write", ssize_t{-1}, [&] { return real(fd, from, shortened(size)); });
}

int close(int fd) {
  REAL(close);
  bool dies = false;
  const bool failed = fails("close", &dies);
  const int error = errno;
  const int result = real(fd);
  if (dies) die();
  if (failed) errno = error;
  return failed ? -1 : result;
}

int fsync(int fd) {
  REAL(fsync);
  return pass("fsync", -1, [&] { return real(fd); });
}

int stat64(const char* path, struct stat64* status) noexcept {
  REAL(stat64);
  return pass("stat", -1, [&] { return real(path, status); });
}

int fstat64(int fd, struct stat64* status) noexcept {
  REAL(fstat64);
  return pass("fstat", -1, [&] { return real(fd, status); });
}

int fstatat64(int folder, const char* path, struct stat64* status, int flags) noexcept {
  REAL(fstatat64);
  return pass("fstatat", -1, [&] { return real(folder, path, status, flags); });
}

int fchmod(int fd, mode_t mode) noexcept {
  REAL(fchmod);
  return pass("fchmod", -1, [&] { return real(fd, mode); });
}

int fchown(int fd, uid_t user, gid_t group) noexcept {
  REAL(fchown);
  return pass("fchown", -1, [&] { return real(fd, user, group); });
}

int flock(int fd, int operation) noexcept {
  REAL(flock);
  return pass("flock", -1, [&] { return real(fd, operation); });
}

int renameat(int from_folder, const char* from, int to_folder, const char* to) noexcept {
  REAL(renameat);
  return pass("renameat", -1, [&] { return real(from_folder, from, to_folder, to); });
}

int unlinkat(int folder, const char* name, int flags) noexcept {
  REAL(unlinkat);
  return pass("unlinkat", -1, [&] { return real(folder, name, flags); });
}

ssize_t readlink(const char* path, char* to, size_t size) noexcept {
  REAL(readlink);
  return pass("readlink", ssize_t{-1}, [&] { return real(path, to, size); });
}

void* mmap64(void* address, size_t size, int protection, int flags, int fd, off64_t offset) noexcept {
  REAL(mmap64);
  return pass("mmap", MAP_FAILED, [&] { return real(address, size, protection, flags, fd, offset); });
}

int munmap(void* address, size_t size) noexcept {
  REAL(munmap);
  return pass("munmap", -1, [&] { return real(address, size); });
}

#if !ORVEL_ADDRESS_SANITIZER && !ORVEL_THREAD_SANITIZER
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);

void* malloc(size_t size) noexcept {
  return pass("malloc", static_cast<void*>(nullptr), [=] { return __libc_malloc(size); });
}

void* calloc(size_t count, size_t size) noexcept {
  return pass("malloc", static_cast<void*>(nullptr), [=] { return __libc_calloc(count, size); });
}

void* realloc(void* memory, size_t size) noexcept {
  return pass("malloc", static_cast<void*>(nullptr), [=] { return __libc_realloc(memory, size); });
}
#endif
}
