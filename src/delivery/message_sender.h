#pragma once

#include <cstdint>

// Local delivery. Messages wait in a bounded queue; one detached worker thread hands them, in order of arrival, to
// the handlers that the settings name.

/// How a message to the agent itself is recognised and executed: control hands these down once at start-up.
struct local_requests {
  /// The agent's own handler name, or null.
  const char* (*own_handler_name)();
  /// Executes the request; its result code.
  int (*execute)(const void* data, uint32_t length);
};

/// Before init_thread_pool(): who executes messages to the agent itself. Without it there are none.
void set_local_requests(const local_requests& requests);

/// Prepares queue and thread attributes. 0, or -1 (logged). Once, before any message is sent.
int init_thread_pool();

/// Stops the pool. Returns (0, or -1: logged) only when it finds no live worker: none ever ran, or the last one has
/// ended already. Otherwise it never returns, so that the process must be ended in another way. Messages still queued
/// are not delivered.
int shutdown_thread_pool();

/// Queues a message. Takes over `*handler_name` and `*data` (malloc'ed; data may be null) and nulls both, whatever
/// the outcome. 0, or -1 when the queue was full and the message is gone. Any thread; never waits for a delivery.
int send_to_queue(char** handler_name, void** data, uint32_t length);

/// As send_to_queue(), with a copy of the name.
int send_to_handler_by_name(const char* handler_name, void** data, uint32_t length);

/// Delivers one message now: to the agent itself, or to the handler's endpoints. The result says nothing that a
/// caller may rely on. Worker thread.
int send_to_handler(const char* handler_name, const void* data, uint32_t length);
