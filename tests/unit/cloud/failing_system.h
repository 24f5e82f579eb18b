#pragma once

#include <atomic>

/// What the system refuses while it is set: to tell its uptime, to make a thread (EAGAIN).
struct system_refusals {
  std::atomic<bool> uptime{false};
  std::atomic<bool> threads{false};
};
extern constinit system_refusals refused_by_system;
