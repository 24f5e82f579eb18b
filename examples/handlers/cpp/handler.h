#pragma once

#include <filesystem>
#include <functional>

// What the three handlers share. Failures are exceptions of the standard library.

/// Owns a file descriptor.
class descriptor {
public:
  /// Takes what a system call has given; throws with its errno and `what` when that is -1.
  descriptor(int number, const char* what);
  descriptor(descriptor&& other) noexcept;
  descriptor& operator=(descriptor&&) = delete;
  ~descriptor();

  [[nodiscard]] int get() const { return number_; }

private:
  int number_;
};

/// Throws with errno and `what` when a system call has given -1.
void check(int result, const char* what);

/// Keeps everything up to the end of `source` as a file. What doesn't come in whole is thrown away (throws).
void keep_message(int source, const std::filesystem::path& folder);

/// Becomes readable at SIGTERM or SIGINT, which end nothing any more.
[[nodiscard]] descriptor stop_signals();

/// Serves one connection after the other, each of which is one message, until `stop` is readable. A message that is
/// coming in at that moment is still kept. The listener is non-blocking.
void serve(const descriptor& listener, const descriptor& stop, const std::filesystem::path& folder);

/// Calls `work`, and tells what it throws to the system's log and to standard error: the exit status.
[[nodiscard]] int run(const char* name, const std::function<void()>& work);
