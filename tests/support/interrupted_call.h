#pragma once

#include <atomic>
#include <chrono>
#include <csignal>
#include <functional>
#include <pthread.h>
#include <thread>
#include <utility>

/// Runs `call` on a thread of its own, and interrupts that with SIGUSR2. One at a time.
class interrupted_call {
public:
  explicit interrupted_call(std::function<void()> call) {
    struct sigaction action {};
    action.sa_handler = [](int) { ++seen(); };  // without SA_RESTART
    sigaction(SIGUSR2, &action, &previous_);
    seen() = 0;
    thread_ = std::thread{[this, call = std::move(call)] {
      call();
      ended_ = true;
    }};
  }
  ~interrupted_call() {
    thread_.join();
    sigaction(SIGUSR2, &previous_, nullptr);
  }
  interrupted_call(const interrupted_call&) = delete;
  interrupted_call& operator=(const interrupted_call&) = delete;

  /// Sends signals until enough of them came, so that some met the blocking call, or until the call ended.
  void interrupt() {
    while (!ended_ && seen() < 50) {
      send_signal();
    }
  }

  /// Sends signals until the call ends; false when it doesn't within a generous time.
  bool interrupt_until_ended() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds{60};
    while (!ended_ && std::chrono::steady_clock::now() < deadline) {
      send_signal();
    }
    return ended_;
  }

private:
  static std::atomic<int>& seen() {
    static constinit std::atomic<int> signals{0};
    return signals;
  }

  void send_signal() {
    pthread_kill(thread_.native_handle(), SIGUSR2);
    std::this_thread::sleep_for(std::chrono::milliseconds{1});
  }

  struct sigaction previous_ {};
  std::atomic<bool> ended_{false};
  std::thread thread_;
};
