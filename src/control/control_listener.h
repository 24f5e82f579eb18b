#pragma once

#include "cloud/json_helper.h"
#include "core/agent_settings.h"

#include <pthread.h>

// The control port: local programs connect to 127.0.0.1, send one JSON request, close their sending side, and get
// {"result":N} back. One client at a time.

/// The byte on the control pipe that makes the listener end the process; any other byte ends its thread only.
constexpr char control_exit_process = 't';
constexpr char control_end_thread = 's';

/// Starts the listener thread, which is joinable. Its handle, or 0 when it could not be made. `settings` and
/// `pipe_read_end` stay the caller's and must outlive the thread. Once.
[[nodiscard]] pthread_t start_control_listener(AgentSettings* settings, int pipe_read_end);

/// Carries out a parsed request; the result code that the client gets.
int execute_request(const ControlRequest* request, AgentSettings* settings);

/// Parses and executes the text of a request; the result code that the client gets, -1 when it doesn't parse. From now
/// on the calling thread's HTTP requests fail while requests are held back, as the thread must never wait for a resume.
int execute_request_text(const char* text, AgentSettings* settings);

/// Parses and executes a broker message to the agent itself (any bytes, need not be terminated; data may be null).
/// The result code, -1 when it doesn't parse.
int handle_incoming_request(const void* data, uint32_t length, AgentSettings* settings);

/// The agent's own handler name, read once it is set and then kept for the life of the process; null while unset.
const char* agent_handler_name();

/// Hands execution of messages to the agent itself down to local delivery. Once, before init_thread_pool().
void serve_local_requests(AgentSettings* settings);
