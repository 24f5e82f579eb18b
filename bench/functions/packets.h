#pragma once

#include "broker/packet_format.h"

#include <algorithm>
#include <string>
#include <vector>

/// Appends a chunk of `size` bytes.
inline void append_chunk(std::vector<unsigned char>* stream, const std::string& bytes) {
  unsigned char length[2];
  put_u16(length, static_cast<uint16_t>(bytes.size()));
  stream->insert(stream->end(), length, length + sizeof length);
  stream->insert(stream->end(), bytes.begin(), bytes.end());
}

/// Appends a plain message: the handler's name, and the payload in as many chunks as it needs.
inline void append_message(std::vector<unsigned char>* stream, const std::string& name, size_t payload_size) {
  const size_t payload_chunks = (payload_size + max_chunk_size - 1) / max_chunk_size;
  stream->push_back(packet_plain_message);
  stream->push_back(static_cast<unsigned char>(1 + payload_chunks));
  append_chunk(stream, name);
  for (size_t left = payload_size; left > 0; left -= std::min(left, max_chunk_size)) {
    append_chunk(stream, std::string(std::min(left, max_chunk_size), 'x'));
  }
}
