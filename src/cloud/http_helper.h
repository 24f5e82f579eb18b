#pragma once

#include "core/agent_settings.h"

#include <cstddef>

// The HTTPS client (libcurl). One request at a time in the whole process; a pause flag holds requests back. Any
// thread may call these. The broker thread leaves every wait when it is to stop; its request then fails unmade.

/// Text that grows with a reply; always terminated once something was received. Starts as a malloc'ed empty text
/// (http_buffer_create) and is freed by http_buffer_free().
struct HttpBuffer {
  char* text;
  size_t length;  ///< bytes, without the terminator
};

/// An empty buffer whose text is ""; `text` is null when memory is short.
[[nodiscard]] HttpBuffer http_buffer_create();
void http_buffer_free(HttpBuffer* buffer);

constexpr int http_post_failed = 1;
constexpr int http_unresolved = -7;
constexpr int http_unconnected = -8;
constexpr int http_timed_out = -4;
constexpr int http_would_block = -10;  ///< requests are held back, and the thread must not wait for them

/// POSTs the JSON text `body`. 0 with `*status`; -7 when the host can't be resolved, -8 when there is no connection,
/// -4 when the time is up, 1 for any other failure. Whatever the HTTP status is, a transfer that went through is a
/// success. Failures are logged.
[[nodiscard]] int http_post_json(const char* url, AgentSettings* settings, const char* body, long* status,
                                 HttpBuffer* headers, HttpBuffer* reply);

/// GETs, with one more header line if `extra_header` is not null. 0 with `*status`, or -1 (logged).
[[nodiscard]] int http_get_with_header(const char* url, AgentSettings* settings, const char* extra_header,
                                       long* status, HttpBuffer* headers, HttpBuffer* reply);
[[nodiscard]] int http_get(const char* url, AgentSettings* settings, long* status, HttpBuffer* headers,
                           HttpBuffer* reply);

/// Holds back all requests from now on; lets them go again and wakes every interruptible sleeper.
void pause_http_requests();
void resume_http_requests();

/// From now on requests of the calling thread fail instead of waiting while requests are held back (POST -10,
/// GET -1), at whatever point the pause comes. For threads that a resume has to get through to.
void refuse_requests_while_paused();

/// 1 while requests are held back.
[[nodiscard]] int http_requests_paused();

/// Makes threads that wait for their turn test whether they still may wait (thread_may_wait()). For whoever has just
/// cleared a thread's flag.
void wake_http_waiters();
