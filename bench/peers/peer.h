#pragma once

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

/// Ends the program, loudly, unless `done`.
inline void require(bool done, const char* what) {
  if (done) return;
  std::fprintf(stderr, "bench_peer: %s: %s\n", what, std::strerror(errno));
  std::exit(1);
}

inline int64_t monotonic_ns() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}
