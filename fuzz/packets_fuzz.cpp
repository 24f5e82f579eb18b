// The broker's byte stream, cut anywhere, against a parser that reads it in one piece.

#include "broker/messages/heartbeat_message.h"
#include "broker/messages/plain_message.h"
#include "broker/packet_parser.h"
#include "core/agent_settings.h"
#include "core/owned.h"
#include "delivery/message_sender.h"
#include "fuzz_input.h"
#include "story.h"

#include <utility>

namespace {

constexpr size_t longest_stream = 140000;

struct naive_packet {
  uint8_t type;
  bool has_count;
  uint8_t count;
  std::vector<std::string> chunks;
  std::vector<size_t> chunk_ends;
  bool complete;
  size_t begin;
  size_t end;
};

// Reads one packet; the stream may end anywhere in it.
naive_packet read_packet(const std::string& stream, size_t begin) {
  naive_packet packet{static_cast<uint8_t>(stream[begin]), false, 0, {}, {}, false, begin, 0};
  size_t at = begin + 1;
  if (at == stream.size()) return packet;
  packet.has_count = true;
  packet.count = static_cast<uint8_t>(stream[at++]);
  const int chunks = packet.count == 0 ? 256 : packet.count;
  for (int i = 0; i < chunks; ++i) {
    if (stream.size() - at < 2) return packet;
    const size_t length =
        static_cast<unsigned char>(stream[at]) * 256U + static_cast<unsigned char>(stream[at + 1]);
    at += 2;
    if (length == 0) break;  // ends the packet, whatever chunks are left
    if (stream.size() - at < length) return packet;
    packet.chunks.push_back(stream.substr(at, length));
    at += length;
    packet.chunk_ends.push_back(at);
  }
  packet.complete = true;
  packet.end = at;
  return packet;
}

std::vector<naive_packet> read_stream(const std::string& stream) {
  std::vector<naive_packet> packets;
  for (size_t at = 0; at < stream.size();) {
    packets.push_back(read_packet(stream, at));
    if (!packets.back().complete) break;
    at = packets.back().end;
  }
  return packets;
}

// --- the parser with callbacks that stop it at times

fuzz_input* stops = nullptr;
bool stopped = false;

bool stop_here() {
  stopped = stops->next() % 2 == 1;
  return stopped;
}

std::string hash_of(const unsigned char* bytes, size_t size) {
  uint32_t hash = 2166136261U;
  for (size_t i = 0; i < size; ++i) {
    hash = (hash ^ bytes[i]) * 16777619U;
  }
  return formatted("%zu bytes, %08x", size, hash);
}

std::string hash_of(const std::string& bytes) {
  return hash_of(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

constexpr packet_callbacks stopping_callbacks = {
    .on_start =
        [](packet_parser*) {
          if (stop_here()) return 1;
          tell("start\n");
          return 0;
        },
    .on_type =
        [](packet_parser* parser) {
          if (stop_here()) return -1;
          tell("type %d\n", parser->type);
          return 0;
        },
    .on_count =
        [](packet_parser* parser) {
          if (stop_here()) return 1;
          tell("count %d\n", parser->chunks_left);
          return 0;
        },
    .on_chunk = [](packet_parser*, const unsigned char* chunk,
                   uint16_t length) { tell("chunk of %s\n", hash_of(chunk, length).c_str()); },
    .on_packet =
        [](packet_parser*) {
          if (stop_here()) return 1;
          tell("packet\n");
          return 0;
        },
};

std::string story_of_callbacks(const std::string& stream) {
  std::string story = stream.empty() ? "" : "start\n";
  for (const naive_packet& packet : read_stream(stream)) {
    story += formatted("type %d\n", packet.type);
    if (packet.has_count) story += formatted("count %d\n", packet.count);
    for (const std::string& chunk : packet.chunks) {
      story += "chunk of " + hash_of(chunk) + "\n";
    }
    if (packet.complete) story += "packet\n";
  }
  return story;
}

const unsigned char* bytes_of(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

void feed_with_stops(packet_parser* parser, const std::string& piece) {
  size_t at = 0;
  do {
    stopped = false;
    // A copy of its own: reading behind the piece is found.
    const std::vector<unsigned char> rest(piece.begin() + static_cast<std::ptrdiff_t>(at), piece.end());
    const size_t consumed = packet_parse(parser, &stopping_callbacks, rest.data(), rest.size());
    CHECK(consumed <= rest.size());
    CHECK(stopped || consumed == rest.size());
    at += consumed;
  } while (stopped);
}

void check_callbacks(const std::string& stream, fuzz_input* input) {
  stops = input;
  packet_parser* parser = packet_parser_create(nullptr);
  for (const std::string& piece : input->cut(stream)) {
    feed_with_stops(parser, piece);
  }
  packet_parser_free(parser);
  check_same(take_story(), story_of_callbacks(stream));
}

// --- the session's callbacks

uint64_t network_number(const std::string& chunk) {
  uint64_t number = 0;
  for (size_t i = 0; i < 8; ++i) {
    number = number * 256 + static_cast<unsigned char>(chunk[i]);
  }
  return number;
}

std::string story_of_plain_message(const naive_packet& packet) {
  if (!packet.complete) return "";
  if (packet.chunks.empty()) return "E:received message from qbroker without handler id\n";
  std::string payload;
  for (size_t i = 1; i < packet.chunks.size(); ++i) {
    payload += packet.chunks[i];
  }
  return formatted("message for '%s': %s\n", packet.chunks[0].c_str(), hash_of(payload).c_str());
}

std::string story_of_heartbeats(const naive_packet& packet, uint64_t* newest) {
  std::string story;
  for (const std::string& chunk : packet.chunks) {
    if (chunk.size() != 16) {
      story +=
          formatted("W:Size of hearbeat responce is more than we expected. Expected 16, but received %zu.\n",
                    chunk.size());
      continue;
    }
    *newest = network_number(chunk);
    story += formatted("D:Received heartbeat response with sequence number %llu, latest sent was 0.\n",
                       static_cast<unsigned long long>(*newest));
  }
  return story;
}

std::string story_of_session(const std::string& stream, uint64_t* newest) {
  std::string story;
  for (const naive_packet& packet : read_stream(stream)) {
    if (packet.type == 2) story += story_of_plain_message(packet);
    if (packet.type == 12) story += story_of_heartbeats(packet, newest);
  }
  return story;
}

// One connection: a parser from its beginning to its end.
void receive(const std::vector<std::string>& pieces) {
  packet_parser* parser = packet_parser_create(nullptr);
  for (const std::string& piece : pieces) {
    CHECK(packet_parse(parser, &session_callbacks, bytes_of(piece), piece.size()) == piece.size());
  }
  packet_parser_free(parser);
}

void check_session(const std::string& stream, fuzz_input* input) {
  constexpr unsigned char response_to_none[16] = {};
  heartbeat_response_received(response_to_none, sizeof response_to_none);
  take_story();
  uint64_t newest = 0;

  // The connection may be lost on the way, in the middle of whatever it was.
  const size_t lost_at = input->next() * stream.size() / 255;
  const std::string before = stream.substr(0, lost_at);
  const std::string after = stream.substr(lost_at);
  receive(input->cut(before));
  receive(input->cut(after));
  std::string expected = story_of_session(before, &newest);
  expected += story_of_session(after, &newest);
  check_same(take_story(), expected);
  CHECK((check_heartbeat() == 0) == (newest == 0));
  plain_message_reset();
}

}  // namespace

// In the place of local delivery.
int send_to_queue(char** handler_name, void** data, uint32_t length) {
  const c_string name{std::exchange(*handler_name, nullptr)};
  const c_bytes payload{static_cast<unsigned char*>(std::exchange(*data, nullptr))};
  CHECK(payload != nullptr || length == 0);
  tell("message for '%s': %s\n", name.get(), hash_of(payload.get(), length).c_str());
  return length % 2 == 0 ? 0 : -1;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  begin_run();
  fuzz_input input{data, size};
  const std::string stream = expanded(input.text(), longest_stream);
  check_session(stream, &input);
  begin_run();
  check_callbacks(stream, &input);
  return 0;
}
