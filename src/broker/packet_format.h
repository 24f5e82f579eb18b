#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

// The broker's packet format. All numbers are big-endian.
//
//   0        1        2        4
//   +--------+--------+--------+---------------------+ - - - - - - - - - +
//   | type   | chunks | length | data (length bytes) | further chunks ...
//   +--------+--------+--------+---------------------+ - - - - - - - - - +
//    1 byte   1 byte   2 bytes   0 to 65535           each length + data
//
// docs/protocol.md describes the packets.

constexpr uint8_t packet_identity_by_id = 0;
constexpr uint8_t packet_identity_by_token = 1;
constexpr uint8_t packet_plain_message = 2;
constexpr uint8_t packet_keepalives = 10;
constexpr uint8_t packet_heartbeat = 11;
constexpr uint8_t packet_heartbeat_response = 12;

constexpr size_t packet_header_size = 4;  ///< type, chunk count, length of the first chunk
constexpr size_t max_chunk_size = 65535;
constexpr size_t keepalives_chunk_size = 12;
constexpr size_t heartbeat_chunk_size = 16;

/// Converts between host and network byte order, in either direction. Any thread.
[[nodiscard]] uint64_t host_to_net64(uint64_t value);

/// Writes `value` big-endian at `bytes`; the position behind it.
inline unsigned char* put_u8(unsigned char* bytes, uint8_t value) {
  *bytes = value;
  return bytes + 1;
}

inline unsigned char* put_u16(unsigned char* bytes, uint16_t value) {
  bytes[0] = static_cast<unsigned char>(value >> 8);
  bytes[1] = static_cast<unsigned char>(value);
  return bytes + 2;
}

inline unsigned char* put_u32(unsigned char* bytes, uint32_t value) {
  return put_u16(put_u16(bytes, static_cast<uint16_t>(value >> 16)), static_cast<uint16_t>(value));
}

inline unsigned char* put_u64(unsigned char* bytes, uint64_t value) {
  const uint64_t network = host_to_net64(value);
  std::memcpy(bytes, &network, sizeof network);
  return bytes + sizeof network;
}

/// The big-endian number at `bytes`.
inline uint16_t get_u16(const unsigned char* bytes) {
  return static_cast<uint16_t>(bytes[0] << 8 | bytes[1]);
}

inline uint64_t get_u64(const unsigned char* bytes) {
  uint64_t network = 0;
  std::memcpy(&network, bytes, sizeof network);
  return host_to_net64(network);
}

/// Copies `size` bytes to `bytes`; the position behind them.
inline unsigned char* put_bytes(unsigned char* bytes, const void* source, size_t size) {
  if (size != 0) std::memcpy(bytes, source, size);
  return bytes + size;
}

/// Writes the header of a packet with one chunk of `length` bytes; the position behind it.
inline unsigned char* put_header(unsigned char* bytes, uint8_t type, uint16_t length) {
  return put_u16(put_u8(put_u8(bytes, type), 1), length);
}
