#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

// The handler's end: takes connections one by one and reads each to its end. One connection is one message.

struct sink {
  int listener = -1;
  std::string endpoint;  // as in the setting of a handler
  std::thread thread;
  std::atomic<int64_t> received{0};  // messages
  std::atomic<int64_t> wanted{0};    // at this number the waiting thread is woken
  int64_t ended = 0;                 // when the last message was complete; valid once the thread has ended
};

/// Listens on a free port of 127.0.0.1, or on a Unix socket of this path.
void sink_listen(sink* place, const char* path);

/// Begins to take `count` messages of `size` bytes, in a thread of its own.
void sink_begin(sink* place, int64_t count, int64_t size);

/// Waits until so many messages have come since sink_begin().
void sink_await(sink* place, int64_t count);

/// Waits until all have come; the nanosecond (monotonic) of the last byte.
int64_t sink_end(sink* place);
