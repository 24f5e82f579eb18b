#pragma once

#include <cstdint>

// The three ways to an endpoint. All of them run on the delivery worker, which blocks every signal, in a process that
// ignores SIGPIPE. Failures are logged and the message is lost for that endpoint.

/// One connection with the message on it: TCP to `address`:`port`, or for port 0 the Unix stream socket `address`.
void connect_and_send(const char* address, uint16_t port, const void* data, uint32_t length);

/// Starts the program in folder "/" with file creation mask 0, /dev/null as standard output and error and no other
/// descriptors, and writes the message to its standard input. Doesn't wait for the program's end.
void execute_and_send(const char* path, const void* data, uint32_t length);

/// Collects the exit status of every started program that has ended. Any thread; what SIGCHLD asks for.
void reap_children();
