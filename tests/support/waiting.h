#pragma once

#include <chrono>
#include <thread>

/// Polls until `condition` holds; false when it still doesn't after a generous time.
template <typename Condition> bool eventually(Condition condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds{60};
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds{2});
  }
  return true;
}
