#pragma once

#include "delivery/message_sender.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

/// Receives what is sent to one handler name: the agent's own name is set to it. One at a time.
class delivery_capture {
public:
  explicit delivery_capture(const std::string& handler_name) {
    static const int prepared = [] {
      set_local_requests({own_handler_name, execute});
      return init_thread_pool();
    }();
    std::lock_guard held{shared().lock};
    shared().handler_name = prepared == 0 ? handler_name : "";
    shared().messages.clear();
  }

  /// Waits for `count` messages; what has come when patience is over.
  static std::vector<std::string> wait_for(size_t count) {
    std::unique_lock held{shared().lock};
    shared().arrived.wait_for(held, std::chrono::seconds{30},
                              [count] { return shared().messages.size() >= count; });
    return shared().messages;
  }

private:
  // Never destroyed: the delivery worker outlives main().
  struct state {
    std::mutex lock;
    std::condition_variable arrived;
    std::string handler_name;
    std::vector<std::string> messages;
  };
  static state& shared() {
    static state& one = *new state;
    return one;
  }

  static const char* own_handler_name() { return shared().handler_name.c_str(); }

  static int execute(const void* data, uint32_t length) {
    std::lock_guard held{shared().lock};
    shared().messages.emplace_back(static_cast<const char*>(data), length);
    shared().arrived.notify_all();
    return 0;
  }
};
