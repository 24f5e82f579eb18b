#pragma once

#include <atomic>
#include <cstdint>

// The words that other threads say to the broker thread: the flag that keeps it running, and one-byte commands
// through a pipe that exists while a connection is up.

/// 1 while the broker thread is meant to run; cleared by stop. Any thread may read it.
extern std::atomic<int> keep_connection;
static_assert(std::atomic<int>::is_always_lock_free);

constexpr uint8_t close_command = 99;       ///< close the connection and reconnect at once
constexpr uint8_t heartbeat_command = 104;  ///< send a heartbeat

/// Writes one command to the broker thread. 0, also when the write fails (logged); -1 when no connection is up.
/// Any thread.
int send_command(uint8_t code);

/// send_command() with the one or the other code. Nothing in the agent asks for a heartbeat this way
/// today: the broker thread's timer needs no command.
int post_close_command();
int post_heartbeat_command();

/// Broker thread: publishes the write end of the command pipe (-1: none) to send_command().
void publish_command_pipe(int write_end);
