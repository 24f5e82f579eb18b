// The parser over long chunks, beside the copy that it can't do without.

#include "broker/packet_parser.h"
#include "functions/benchmarks.h"
#include "functions/packets.h"

#include <algorithm>
#include <cstring>
#include <memory>

namespace {

constexpr size_t piece_size = 65536;
constexpr int packets = 16;  // more than the innermost cache holds, as what comes from a network is

std::vector<unsigned char> long_chunks() {
  std::vector<unsigned char> stream;
  for (int i = 0; i < packets; ++i) {
    append_message(&stream, "x", max_chunk_size);
  }
  return stream;
}

void note_chunk(packet_parser* parser, const unsigned char* chunk, uint16_t length) {
  benchmark::DoNotOptimize(parser);
  benchmark::DoNotOptimize(chunk);
  benchmark::DoNotOptimize(length);
}

// Gives the stream to `take` in pieces, as reads would.
template <typename Take> void feed(benchmark::State& state, Take take) {
  const std::vector<unsigned char> stream = long_chunks();
  for (auto _ : state) {
    for (size_t at = 0; at < stream.size(); at += piece_size) {
      take(stream.data() + at, std::min(piece_size, stream.size() - at));
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(stream.size()));
}

void parse_of_agent(benchmark::State& state) {
  const packet_callbacks callbacks = {nullptr, nullptr, nullptr, note_chunk, nullptr};
  packet_parser* parser = packet_parser_create(nullptr);
  feed(state, [&](const unsigned char* bytes, size_t size) {
    must(packet_parse(parser, &callbacks, bytes, size) == size, "parse");
  });
  packet_parser_free(parser);
}

void parse_of_floor(benchmark::State& state) {
  const auto buffer = std::make_unique<unsigned char[]>(piece_size);
  feed(state, [&](const unsigned char* bytes, size_t size) {
    std::memcpy(buffer.get(), bytes, size);
    benchmark::DoNotOptimize(buffer.get());
    benchmark::ClobberMemory();
  });
}

BENCHMARK(parse_of_agent)->Name("parse/agent");
BENCHMARK(parse_of_floor)->Name("parse/floor");

}  // namespace
