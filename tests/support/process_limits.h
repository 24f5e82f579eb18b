#pragma once

#include <cstdlib>
#include <fstream>
#include <grp.h>
#include <sys/resource.h>
#include <unistd.h>

// What the system lets a test's process do.

/// Sets the limit that counts; the one up to which a process may raise it stays.
inline void set_limit(__rlimit_resource resource, rlim_t most) {
  rlimit limit{};
  getrlimit(resource, &limit);
  limit.rlim_cur = most;
  if (setrlimit(resource, &limit) != 0) std::abort();
}

/// Leaves room for `bytes` more of memory. A sanitizer's allocator ends the process within such a limit.
inline void limit_memory(size_t bytes) {
  size_t pages = 0;
  std::ifstream{"/proc/self/statm"} >> pages;
  set_limit(RLIMIT_AS, pages * static_cast<size_t>(sysconf(_SC_PAGESIZE)) + bytes);
}

inline void lift_memory_limit() {
  rlimit limit{};
  getrlimit(RLIMIT_AS, &limit);
  set_limit(RLIMIT_AS, limit.rlim_max);
}

/// As set_limit(), while it lives.
class limit_guard {
public:
  limit_guard(__rlimit_resource resource, rlim_t most) : resource_{resource} {
    getrlimit(resource_, &before_);
    set_limit(resource_, most);
  }
  ~limit_guard() { setrlimit(resource_, &before_); }
  limit_guard(const limit_guard&) = delete;
  limit_guard& operator=(const limit_guard&) = delete;

private:
  __rlimit_resource resource_;
  rlimit before_{};
};

/// Becomes a user without privileges, unless the process runs as one already.
inline void drop_privileges() {
  constexpr uid_t nobody = 65534;
  if (geteuid() != 0) return;
  if (setgroups(0, nullptr) != 0 || setresgid(nobody, nobody, nobody) != 0 ||
      setresuid(nobody, nobody, nobody) != 0) {
    std::abort();
  }
}
