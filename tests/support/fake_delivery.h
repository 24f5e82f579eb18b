#pragma once

#include "core/owned.h"
#include "delivery/message_sender.h"

#include <mutex>
#include <string>
#include <utility>
#include <vector>

/// Takes the place of local delivery in the test program that includes this: messages are collected instead of
/// delivered, so that a test sees what was handed over and can refuse it. The definitions are weak, and the linker
/// doesn't look for others.
class fake_delivery {
public:
  struct message {
    std::string handler;
    std::string text;
    bool operator==(const message&) const = default;
  };

  /// The messages since the last call, in order.
  static std::vector<message> take() {
    const std::scoped_lock lock{state().lock};
    return std::exchange(state().messages, {});
  }

  /// From now on the queue is full, or has room again.
  static void refuse(bool full) {
    const std::scoped_lock lock{state().lock};
    state().full = full;
  }

  /// What set_local_requests() was last given.
  static local_requests& local() { return state().local; }

  static int accept(const char* handler_name, void** data, uint32_t length) {
    const c_string text{static_cast<char*>(std::exchange(*data, nullptr))};
    const std::scoped_lock lock{state().lock};
    if (state().full) return -1;
    state().messages.push_back({handler_name, std::string(text.get(), length)});
    return 0;
  }

private:
  struct shared_state {
    std::mutex lock;
    std::vector<message> messages;
    bool full = false;
    local_requests local{};
  };
  static shared_state& state() {
    static shared_state shared;
    return shared;
  }
};

[[gnu::weak]] void set_local_requests(const local_requests& requests) {
  fake_delivery::local() = requests;
}
[[gnu::weak]] int init_thread_pool() {
  return 0;
}
[[gnu::weak]] int shutdown_thread_pool() {
  return 0;
}
[[gnu::weak]] int send_to_queue(char** handler_name, void** data, uint32_t length) {
  const c_string name{std::exchange(*handler_name, nullptr)};
  return fake_delivery::accept(name.get(), data, length);
}
[[gnu::weak]] int send_to_handler_by_name(const char* handler_name, void** data, uint32_t length) {
  return fake_delivery::accept(handler_name, data, length);
}
[[gnu::weak]] int send_to_handler(const char* /*handler_name*/, const void* /*data*/, uint32_t /*length*/) {
  return 0;
}
