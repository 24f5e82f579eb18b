#pragma once

struct HttpBuffer;

/// What the server's error code for a rejected serial number becomes.
constexpr int register_wrong_serial = -2;

/// Logs what a refusing server says in its headers "X-Error-Code" and "X-Error-Message" (names as spelled, case
/// included). register_wrong_serial for the code 1062, -1 for any other code and without one. Any thread.
int read_error_headers(const HttpBuffer* headers);
