#include "broker/messages/plain_message.h"

#include "core/log.h"
#include "core/owned.h"
#include "delivery/message_sender.h"

#include <cstdlib>
#include <cstring>
#include <utility>

namespace {

constexpr char log_source[] = "plain_message";

// The message that is being received. Broker thread only.
struct plain_message_buffer {
  char* handler_id;        // owned
  unsigned char* payload;  // owned, not terminated
  uint32_t payload_length;
  uint32_t chunks_seen;
};
constinit plain_message_buffer message{};

// Lack of memory costs a chunk, not the process: the message comes from outside.
bool take_handler_id(const unsigned char* chunk, uint16_t length) {
  auto* text = static_cast<char*>(std::malloc(size_t{length} + 1));
  if (text == nullptr) return false;
  std::memcpy(text, chunk, length);
  text[length] = '\0';
  message.handler_id = text;
  return true;
}

bool append_payload(const unsigned char* chunk, uint16_t length) {
  if (length == 0) return true;
  void* grown = std::realloc(message.payload, size_t{message.payload_length} + length);
  if (grown == nullptr) return false;
  message.payload = static_cast<unsigned char*>(grown);
  std::memcpy(message.payload + message.payload_length, chunk, length);
  message.payload_length += length;
  return true;
}

}  // namespace

void plain_message_reset() {
  release_string(message.handler_id);
  std::free(message.payload);
  message = {};
}

void plain_message_append(const unsigned char* chunk, uint16_t length) {
  const bool taken =
      message.chunks_seen == 0 ? take_handler_id(chunk, length) : append_payload(chunk, length);
  if (taken) ++message.chunks_seen;
}

void plain_message_deliver() {
  if (message.handler_id == nullptr) {
    log_error("received message from qbroker without handler id\n");
    return;
  }
  void* payload = std::exchange(message.payload, nullptr);
  send_to_queue(&message.handler_id, &payload, message.payload_length);
}
