#pragma once

#include <cstdint>

// The plain message that is being received: chunk 1 is the handler's name, the others make up the payload. One
// buffer for the process, used by the broker thread only.

/// Begins a new message; whatever was collected is freed.
void plain_message_reset();

/// Takes the next chunk. A chunk for which memory is short is skipped.
void plain_message_append(const unsigned char* chunk, uint16_t length);

/// Hands the message to local delivery, which takes the buffers over. Without a handler name it is logged and
/// dropped.
void plain_message_deliver();
