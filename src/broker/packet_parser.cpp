#include "broker/packet_parser.h"

#include "broker/packet_format.h"
#include "core/owned.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr char log_source[] = "qbroker_connection";

constexpr size_t chunk_buffer_size = max_chunk_size + 1;

// Calls an optional callback; true when it asks to stop.
bool stops(int (*callback)(packet_parser*), packet_parser* parser) {
  return callback != nullptr && callback(parser) != 0;
}

void end_chunk(packet_parser* parser, const packet_callbacks* callbacks, const unsigned char* chunk) {
  // Intended: a chunk count of 0 wraps, and 255 further chunks are expected.
  --parser->chunks_left;
  if (callbacks->on_chunk != nullptr) callbacks->on_chunk(parser, chunk, parser->chunk_length);
  parser->chunk_received = 0;
  parser->chunk_length = 0;
  parser->state = parser->chunks_left != 0 ? parser_state::expect_length_high : parser_state::complete;
}

// Takes as much of the current chunk as is there; the number of bytes taken.
size_t take_chunk_data(packet_parser* parser, const packet_callbacks* callbacks, const unsigned char* bytes,
                       size_t n) {
  const auto missing = static_cast<size_t>(parser->chunk_length - parser->chunk_received);
  if (missing <= n && parser->chunk_received == 0) {  // whole in one piece: no need for a copy
    end_chunk(parser, callbacks, bytes);
    return missing;
  }
  const size_t count = std::min(n, missing);
  std::memcpy(parser->chunk_buffer + parser->chunk_received, bytes, count);
  parser->chunk_received = static_cast<uint16_t>(parser->chunk_received + count);
  if (count == missing) end_chunk(parser, callbacks, parser->chunk_buffer);
  return count;
}

void take_length(packet_parser* parser, unsigned char low) {
  parser->length_bytes[1] = low;
  parser->chunk_length = get_u16(parser->length_bytes);
  // Intended: an empty chunk ends the packet, whatever chunks are left.
  parser->state = parser->chunk_length != 0 ? parser_state::in_chunk : parser_state::complete;
}

}  // namespace

packet_parser* packet_parser_create(AgentSettings* context) {
  auto* parser =
      static_cast<packet_parser*>(must_allocate(sizeof(packet_parser), ALLOCATION("malloc().\n", 1)));
  *parser = {};
  parser->chunk_buffer =
      static_cast<unsigned char*>(must_allocate(chunk_buffer_size, ALLOCATION("malloc().\n", 1)));
  parser->context = context;
  return parser;
}

void packet_parser_free(packet_parser* parser) {
  if (parser == nullptr) return;
  std::free(parser->chunk_buffer);
  std::free(parser);
}

size_t packet_parse(packet_parser* parser, const packet_callbacks* callbacks, const unsigned char* bytes,
                    size_t n) {
  size_t consumed = 0;
  // A complete packet is handled without waiting for the byte behind it.
  while (consumed < n || parser->state == parser_state::complete) {
    switch (parser->state) {
    case parser_state::fresh:
      if (stops(callbacks->on_start, parser)) return 0;
      parser->state = parser_state::expect_type;
      break;
    case parser_state::expect_type:
      parser->type = bytes[consumed];
      if (stops(callbacks->on_type, parser)) return consumed;
      parser->state = parser_state::expect_count;
      ++consumed;
      break;
    case parser_state::expect_count:
      parser->chunks_left = bytes[consumed];
      if (stops(callbacks->on_count, parser)) return consumed;
      parser->state = parser_state::expect_length_high;
      ++consumed;
      break;
    case parser_state::expect_length_high:
      parser->length_bytes[0] = bytes[consumed++];
      parser->state = parser_state::expect_length_low;
      break;
    case parser_state::expect_length_low:
      take_length(parser, bytes[consumed++]);
      break;
    case parser_state::in_chunk:
      consumed += take_chunk_data(parser, callbacks, bytes + consumed, n - consumed);
      break;
    case parser_state::complete:
      if (stops(callbacks->on_packet, parser)) return consumed;
      parser->state = parser_state::expect_type;
      break;
    default:
      return n;
    }
  }
  return consumed;
}
