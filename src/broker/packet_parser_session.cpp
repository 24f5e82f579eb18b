#include "broker/messages/heartbeat_message.h"
#include "broker/messages/plain_message.h"
#include "broker/packet_format.h"
#include "broker/packet_parser.h"

namespace {

int begin_packet(packet_parser* parser) {
  if (parser->type == packet_plain_message) plain_message_reset();
  return 0;
}

void take_chunk(packet_parser* parser, const unsigned char* chunk, uint16_t length) {
  if (parser->type == packet_heartbeat_response) heartbeat_response_received(chunk, length);
  if (parser->type == packet_plain_message) plain_message_append(chunk, length);
}

int end_packet(packet_parser* parser) {
  if (parser->type == packet_plain_message) plain_message_deliver();
  return 0;
}

}  // namespace

constinit const packet_callbacks session_callbacks = {
    .on_start = nullptr,
    .on_type = begin_packet,
    .on_count = nullptr,
    .on_chunk = take_chunk,
    .on_packet = end_packet,
};
