#pragma once

#include <cstddef>
#include <cstdint>

struct AgentSettings;

/// Where the parser stands; the values follow the order of the bytes on the wire (packet_format.h).
enum class parser_state : uint8_t {
  fresh = 0,
  expect_type = 1,
  expect_count = 2,
  expect_length_high = 3,
  expect_length_low = 4,
  in_chunk = 5,
  complete = 6,
};

/// Cuts a received byte stream into packets. One per connection. Made by packet_parser_create().
struct packet_parser {
  parser_state state;
  uint8_t type;
  uint8_t chunks_left;
  uint16_t chunk_length;
  uint8_t length_bytes[2];
  unsigned char* chunk_buffer;  ///< owned, 65536 bytes; for a chunk that comes in parts
  uint16_t chunk_received;
  AgentSettings* context;  ///< for callbacks that need it (today none does); not owned
};

/// What the parser calls; each may be null. on_start comes once, at the first byte; on_type and on_count after
/// their byte, on_chunk with each whole non-empty chunk, whose bytes last as long as the call, on_packet after the
/// packet's last byte. A result other than 0 stops the parser (see packet_parse); on_chunk can't stop it.
/// session_callbacks leave on_start and on_count out.
struct packet_callbacks {
  int (*on_start)(packet_parser* parser);
  int (*on_type)(packet_parser* parser);
  int (*on_count)(packet_parser* parser);
  void (*on_chunk)(packet_parser* parser, const unsigned char* chunk, uint16_t length);
  int (*on_packet)(packet_parser* parser);
};

/// A new parser, for packet_parser_free(). Lack of memory ends the process with status 1.
[[nodiscard]] packet_parser* packet_parser_create(AgentSettings* context);
void packet_parser_free(packet_parser* parser);

/// Feeds `n` bytes, split anywhere. Returns n, or the number of bytes consumed before a callback stopped the
/// parser: 0 for on_start, otherwise the bytes before the one that was being looked at; a packet's last byte counts
/// as consumed when on_packet stops. The next call begins with the callback that stopped.
size_t packet_parse(packet_parser* parser, const packet_callbacks* callbacks, const unsigned char* bytes,
                    size_t n);

/// The session's callbacks: heartbeat responses and plain messages are handled, other packets are skipped.
extern const packet_callbacks session_callbacks;
