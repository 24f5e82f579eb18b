// Everything that an agent's messages come from and go to: the broker that it is connected to, and the handler that
// takes what it delivers. Does what its standard input says and answers each line with one.
//
// usage: bench_peer SINK [CERTIFICATE KEY]      SINK: "tcp" or the path of a Unix socket; a certificate asks for TLS
//   first answer                   PORT ENDPOINT: the broker's port, and the handler's endpoint
//   accept                         waits for the agent; "plain" or the cipher
//   deliver NAME COUNT SIZE OPEN   sends COUNT messages of SIZE bytes to handler NAME, at most OPEN of which have not
//                                  arrived; nanoseconds from the first byte sent to the last one arrived
//   collect COUNT SIZE             "ready"; when all have arrived, the nanosecond (monotonic) of the last byte
//   plug NAME                      sends one message that nobody takes; "sent"
//   seal NAME COUNT SIZE           encrypts as many messages as they will go out; "sealed"
//   flood                          sends them and closes; nanoseconds until the agent, having read all, has closed, too

#include "link.h"
#include "peer.h"
#include "sink.h"

#include <algorithm>
#include <iostream>
#include <span>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr size_t max_chunk = 65535;
constexpr size_t plug_size = 1'000'000;  // more than the sockets hold
constexpr int64_t flood_block = 1 << 20;

using packets = std::vector<unsigned char>;

void add_chunk(packets* bytes, const unsigned char* data, size_t size) {
  bytes->push_back(static_cast<unsigned char>(size >> 8));
  bytes->push_back(static_cast<unsigned char>(size));
  bytes->insert(bytes->end(), data, data + size);
}

// `count` plain messages, one behind the other.
packets messages(const std::string& handler, int64_t count, size_t size) {
  const std::vector<unsigned char> payload(size, 'x');
  packets one{2, static_cast<unsigned char>(1 + (size + max_chunk - 1) / max_chunk)};
  add_chunk(&one, reinterpret_cast<const unsigned char*>(handler.data()), handler.size());
  for (size_t at = 0; at < size; at += max_chunk) {
    add_chunk(&one, payload.data() + at, std::min(max_chunk, size - at));
  }
  packets all;
  all.reserve(one.size() * static_cast<size_t>(count));
  for (; count > 0; --count)
    all.insert(all.end(), one.begin(), one.end());
  return all;
}

// Keeps the agent busy: a burst is half of what may be open, and goes out when there is room for it.
int64_t deliver(broker_link* link, sink* place, const std::string& handler, int64_t count, size_t size,
                int64_t open) {
  const int64_t burst = std::max<int64_t>(open / 2, 1);
  const packets block = messages(handler, burst, size);
  const size_t each = block.size() / static_cast<size_t>(burst);
  sink_begin(place, count, static_cast<int64_t>(size));
  const int64_t begun = monotonic_ns();
  for (int64_t sent = 0; sent < count;) {
    const int64_t now = std::min(burst, count - sent);
    sink_await(place, sent + now - open);
    link_send(link, std::span{block}.first(each * static_cast<size_t>(now)));
    sent += now;
  }
  sink_await(place, count);
  return sink_end(place) - begun;
}

// Everything is encrypted beforehand, so that sending costs less than receiving.
packets seal(broker_link* link, const std::string& handler, int64_t count, size_t size) {
  const int64_t at_once = std::max<int64_t>(flood_block / static_cast<int64_t>(size), 1);
  const packets block = messages(handler, at_once, size);
  const size_t each = block.size() / static_cast<size_t>(at_once);
  packets sealed;
  sealed.reserve((each + each / 100) * static_cast<size_t>(count));
  for (int64_t made = 0; made < count; made += at_once) {
    const auto now = static_cast<size_t>(std::min(at_once, count - made));
    link_seal(link, std::span{block}.first(each * now), &sealed);
  }
  return sealed;
}

int64_t flood(broker_link* link, const packets& sealed) {
  const int64_t begun = monotonic_ns();
  link_send_sealed(link, sealed);
  link_finish(link);
  return monotonic_ns() - begun;
}

std::string carry_out(broker_link* link, sink* place, packets* sealed, std::istream& line) {
  std::string command;
  std::string name;
  int64_t count = 0;
  size_t size = 0;
  int64_t open = 0;
  line >> command;
  if (command == "accept") return link_accept(link);
  if (command == "flood") return std::to_string(flood(link, *sealed));
  if (command == "collect") {
    line >> count >> size;
    sink_begin(place, count, static_cast<int64_t>(size));
    std::cout << "ready" << std::endl;
    return std::to_string(sink_end(place));
  }
  line >> name >> count >> size >> open;
  if (command == "deliver") return std::to_string(deliver(link, place, name, count, size, open));
  if (command == "seal") {
    *sealed = seal(link, name, count, size);
    return "sealed";
  }
  require(command == "plug", "unknown command");
  link_send(link, messages(name, 1, plug_size));
  return "sent";
}

}  // namespace

int main(int argc, char** argv) {
  require(argc == 2 || argc == 4, "usage");
  broker_link link;
  sink place;
  packets sealed;
  sink_listen(&place, std::string{argv[1]} == "tcp" ? nullptr : argv[1]);
  const uint16_t port = link_listen(&link, argc == 4 ? argv[2] : nullptr, argc == 4 ? argv[3] : nullptr);
  std::cout << port << ' ' << place.endpoint << std::endl;
  std::string text;
  while (std::getline(std::cin, text)) {
    std::istringstream line{text};
    std::cout << carry_out(&link, &place, &sealed, line) << std::endl;
  }
  return 0;
}
