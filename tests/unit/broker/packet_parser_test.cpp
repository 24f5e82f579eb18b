#include "broker/packet_parser.h"

#include "broker/packet_format.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

using testing::ElementsAre;

struct parser_deleter {
  void operator()(packet_parser* parser) const { packet_parser_free(parser); }
};
using parser_ptr = std::unique_ptr<packet_parser, parser_deleter>;

parser_ptr new_parser() {
  return parser_ptr{packet_parser_create(nullptr)};
}

// What the callbacks saw, in order, and which of them is to stop the parser.
struct recording {
  std::vector<std::string> events;
  std::string stop_at;
};
constinit recording* now_recording = nullptr;

int record(const std::string& event) {
  now_recording->events.push_back(event);
  return event == now_recording->stop_at ? 1 : 0;
}

constexpr packet_callbacks recording_callbacks = {
    .on_start = [](packet_parser*) { return record("start"); },
    .on_type = [](packet_parser* parser) { return record("type " + std::to_string(parser->type)); },
    .on_count = [](packet_parser* parser) { return record("count " + std::to_string(parser->chunks_left)); },
    .on_chunk =
        [](packet_parser*, const unsigned char* chunk, uint16_t length) {
          record("chunk " + std::string{reinterpret_cast<const char*>(chunk), length});
        },
    .on_packet = [](packet_parser*) { return record("packet"); },
};

class PacketParser : public testing::Test {
protected:
  void SetUp() override { now_recording = &recorded; }

  size_t feed(const std::string& bytes) {
    return packet_parse(parser.get(), &recording_callbacks,
                        reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
  }

  void restart() {
    parser = new_parser();
    recorded = {};
  }

  parser_ptr parser = new_parser();
  recording recorded;
};

std::string bytes_of(std::initializer_list<int> values) {
  std::string bytes;
  for (const int value : values) {
    bytes += static_cast<char>(value);
  }
  return bytes;
}

std::string chunk_of(const std::string& data) {
  return bytes_of({static_cast<int>(data.size() >> 8), static_cast<int>(data.size() & 255)}) + data;
}

std::string packet_of(int type, const std::vector<std::string>& chunks) {
  std::string packet = bytes_of({type, static_cast<int>(chunks.size())});
  for (const std::string& chunk : chunks) {
    packet += chunk_of(chunk);
  }
  return packet;
}

// A second parser that knows the whole stream and cuts it by position.
std::vector<std::string> naive_events(const std::string& stream) {
  std::vector<std::string> events;
  const auto at = [&stream](size_t i) {
    return static_cast<unsigned>(static_cast<unsigned char>(stream[i]));
  };
  if (stream.empty()) return events;
  events.emplace_back("start");
  size_t i = 0;
  while (i < stream.size()) {
    events.push_back("type " + std::to_string(at(i++)));
    if (i == stream.size()) return events;
    unsigned chunks = at(i++);
    events.push_back("count " + std::to_string(chunks));
    if (chunks == 0) chunks = 256;
    for (; chunks > 0; --chunks) {
      if (i + 2 > stream.size()) return events;
      const unsigned length = at(i) * 256 + at(i + 1);
      i += 2;
      if (length == 0) break;
      if (i + length > stream.size()) return events;
      events.push_back("chunk " + stream.substr(i, length));
      i += length;
    }
    events.emplace_back("packet");
  }
  return events;
}

// Streams that between them hold every form of packet.
std::vector<std::string> sample_streams() {
  return {
      packet_of(2, {"handler", "payload"}),
      packet_of(2, {"h", "one", "two", "three"}) + packet_of(12, {"0123456789abcdef"}),
      bytes_of({2, 1, 0, 0}),
      bytes_of({2, 5, 0, 0}) + packet_of(2, {"next"}),
      bytes_of({2, 3}) + chunk_of("ab") + bytes_of({0, 0}) + packet_of(99, {"x"}),
      bytes_of({2, 0}) + chunk_of("abc") + chunk_of("de") + bytes_of({0, 0}) + packet_of(255, {"y", "z"}),
      packet_of(0, {std::string(300, 'q')}),
      std::string(40, '\0'),
  };
}

}  // namespace

TEST_F(PacketParser, ReportsEachPartOfAPacketInOrder) {
  EXPECT_EQ(feed(packet_of(2, {"name", "data"})), 14U);
  EXPECT_THAT(recorded.events,
              ElementsAre("start", "type 2", "count 2", "chunk name", "chunk data", "packet"));
}

TEST_F(PacketParser, EverySplitPositionGivesTheSame) {
  for (const std::string& stream : sample_streams()) {
    for (size_t cut = 0; cut <= stream.size(); ++cut) {
      restart();
      EXPECT_EQ(feed(stream.substr(0, cut)), cut);
      EXPECT_EQ(feed(stream.substr(cut)), stream.size() - cut);
      EXPECT_EQ(recorded.events, naive_events(stream)) << "cut at " << cut;
    }
  }
}

TEST_F(PacketParser, SingleBytesGiveTheSame) {
  for (const std::string& stream : sample_streams()) {
    restart();
    for (const char byte : stream) {
      EXPECT_EQ(feed({byte}), 1U);
    }
    EXPECT_EQ(recorded.events, naive_events(stream));
  }
}

TEST_F(PacketParser, RandomStreamsAgreeWithANaiveParser) {
  std::mt19937 random{20240517};
  for (int round = 0; round < 3000; ++round) {
    // Small values are frequent, so that lengths and counts stay within the stream.
    std::string stream(random() % 400, '\0');
    for (char& byte : stream) {
      byte = static_cast<char>(random() % 4 != 0 ? random() % 4 : random() % 256);
    }
    restart();
    for (size_t i = 0; i < stream.size();) {
      const size_t count = std::min<size_t>(1 + random() % 50, stream.size() - i);
      ASSERT_EQ(feed(stream.substr(i, count)), count);
      i += count;
    }
    ASSERT_EQ(recorded.events, naive_events(stream)) << "round " << round;
  }
}

TEST_F(PacketParser, EveryTypeIsParsed) {
  for (int type = 0; type < 256; ++type) {
    restart();
    feed(packet_of(type, {"x"}));
    EXPECT_THAT(recorded.events,
                ElementsAre("start", "type " + std::to_string(type), "count 1", "chunk x", "packet"));
  }
}

TEST_F(PacketParser, TakesUpTo255Chunks) {
  const std::vector<std::string> chunks(255, "c");
  feed(packet_of(2, chunks));
  EXPECT_EQ(std::count(recorded.events.begin(), recorded.events.end(), "chunk c"), 255);
  EXPECT_EQ(recorded.events.back(), "packet");
}

TEST_F(PacketParser, AChunkCountOf0ExpectsTwoHundredFiftyFiveFurtherChunks) {
  feed(bytes_of({2, 0}) + chunk_of("c"));
  EXPECT_EQ(parser->chunks_left, 255);
  for (int i = 0; i < 254; ++i) {
    feed(chunk_of("c"));
  }
  EXPECT_EQ(recorded.events.back(), "chunk c");
  feed(chunk_of("c"));
  EXPECT_EQ(std::count(recorded.events.begin(), recorded.events.end(), "chunk c"), 256);
  EXPECT_EQ(recorded.events.back(), "packet");
}

TEST_F(PacketParser, AnEmptyChunkCompletesThePacketAtOnce) {
  for (const int count : {0, 1, 2, 255}) {
    restart();
    feed(bytes_of({2, count, 0, 0}));
    EXPECT_THAT(recorded.events, ElementsAre("start", "type 2", "count " + std::to_string(count), "packet"));
    EXPECT_EQ(parser->state, parser_state::expect_type);
  }
}

TEST_F(PacketParser, AChunkOf65535BytesArrivesWhole) {
  std::string data(65535, '\0');
  for (size_t i = 0; i < data.size(); ++i) {
    data[i] = static_cast<char>(i * 31);
  }
  const std::string stream = packet_of(2, {data, "next"});
  for (const size_t step : {size_t{1}, size_t{4096}, size_t{65535}, stream.size()}) {
    restart();
    for (size_t i = 0; i < stream.size(); i += step) {
      feed(stream.substr(i, step));
    }
    EXPECT_EQ(recorded.events, (std::vector<std::string>{"start", "type 2", "count 2", "chunk " + data,
                                                         "chunk next", "packet"}));
  }
}

TEST_F(PacketParser, ThePacketIsCompleteWithItsLastByte) {
  const std::string packet = packet_of(2, {"ab"});
  feed(packet.substr(0, packet.size() - 1));
  EXPECT_EQ(recorded.events.back(), "count 1");
  feed(packet.substr(packet.size() - 1));
  EXPECT_EQ(recorded.events.back(), "packet");
}

TEST_F(PacketParser, NoBytesChangeNothing) {
  EXPECT_EQ(feed(""), 0U);
  EXPECT_TRUE(recorded.events.empty());
  EXPECT_EQ(parser->state, parser_state::fresh);
}

TEST_F(PacketParser, AStoppedParserSaysWhatWasConsumedAndRepeatsTheStep) {
  const std::string stream = packet_of(1, {"a"}) + packet_of(2, {"bc"});
  struct {
    const char* stop_at;
    size_t consumed;
  } const cases[] = {{"start", 0}, {"type 1", 0}, {"count 1", 1}, {"packet", 5}, {"type 2", 5}};
  for (const auto& [stop_at, consumed] : cases) {
    restart();
    recorded.stop_at = stop_at;
    EXPECT_EQ(feed(stream), consumed) << stop_at;
    ASSERT_FALSE(recorded.events.empty());
    EXPECT_EQ(recorded.events.back(), stop_at);
    recorded.stop_at.clear();
    recorded.events.pop_back();
    EXPECT_EQ(feed(stream.substr(consumed)), stream.size() - consumed) << stop_at;
    EXPECT_EQ(recorded.events, naive_events(stream)) << stop_at;
  }
}

TEST_F(PacketParser, CallbacksAreOptional) {
  const packet_callbacks none{};
  const std::string stream = packet_of(2, {"a", "b"}) + bytes_of({7, 1, 0, 0});
  EXPECT_EQ(
      packet_parse(parser.get(), &none, reinterpret_cast<const unsigned char*>(stream.data()), stream.size()),
      stream.size());
  EXPECT_EQ(parser->state, parser_state::expect_type);
}

TEST_F(PacketParser, AStateBeyondTheLastConsumesWithoutEffect) {
  parser->state = static_cast<parser_state>(7);
  EXPECT_EQ(feed(packet_of(2, {"a"})), 5U);
  EXPECT_TRUE(recorded.events.empty());
}

TEST_F(PacketParser, FreeingNoParserIsHarmless) {
  packet_parser_free(nullptr);
}

TEST(PacketFormat, NumbersAreBigEndian) {
  unsigned char bytes[7];
  EXPECT_EQ(put_u8(bytes, 0xAB), bytes + 1);
  EXPECT_EQ(put_u16(bytes + 1, 0x0123), bytes + 3);
  EXPECT_EQ(put_u32(bytes + 3, 0x89ABCDEF), bytes + 7);
  EXPECT_THAT(bytes, ElementsAre(0xAB, 0x01, 0x23, 0x89, 0xAB, 0xCD, 0xEF));
  EXPECT_EQ(get_u16(bytes + 3), 0x89AB);
}
