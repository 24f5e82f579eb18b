#include "scripted_proxy.h"

#include "broker/net_helper.h"
#include "broker/proxy_stream.h"
#include "broker/ssl_routine.h"
#include "story.h"

#include <cerrno>
#include <cstring>

scripted_proxy proxy;

namespace {

// The next outcome of the script for a write.
write_outcome next_outcome() {
  if (proxy.writes.empty()) return write_outcome::whole;
  const write_outcome outcome = proxy.writes.front();
  proxy.writes.erase(proxy.writes.begin());
  return outcome;
}

write_outcome outcome_of(uint8_t control) {
  return control == 255   ? write_outcome::fails
         : control == 254 ? write_outcome::one_byte_short
                          : write_outcome::whole;
}

}  // namespace

std::string story_of_write(const std::string& bytes) {
  return "sent '" + escaped(bytes) + "'\n";
}

scripted_proxy read_script(fuzz_input* input, const std::string& text) {
  scripted_proxy script;
  for (int i = 0; i < 3; ++i) {
    script.writes.push_back(outcome_of(input->next()));
  }
  const uint8_t flags = input->next();
  script.refuses = (flags & 1) != 0;
  script.tls_fails = (flags & 2) != 0;
  script.resolves = (flags & 8) == 0;
  script.address.s_addr = htonl(0xC0000200U + input->next());
  for (size_t begin = 0; begin <= text.size();) {
    const size_t end = std::min(text.find('\f', begin), text.size());
    const bool resets = input->next() % 2 == 1;
    script.connections.push_back({input->cut(text.substr(begin, end - begin)), resets});
    begin = end + 1;
  }
  return script;
}

// In the place of the agent's ways to the network.

int conn_read(net_connection* /*connection*/, void* buffer, size_t size) {
  script_reader reader{proxy.connections.front()};
  const std::string taken = reader.read(size);
  if (taken.empty()) {
    errno = reader.resets() ? ECONNRESET : 0;
    return reader.resets() ? -1 : 0;
  }
  std::vector<std::string>& pieces = proxy.connections.front().pieces;
  pieces.front().erase(0, taken.size());
  if (pieces.front().empty()) pieces.erase(pieces.begin());
  std::memcpy(buffer, taken.data(), taken.size());
  return static_cast<int>(taken.size());
}

int proxy_write(net_connection* /*connection*/, const void* buffer, size_t size) {
  const std::string bytes{static_cast<const char*>(buffer), size};
  switch (next_outcome()) {
  case write_outcome::fails:
    errno = EPIPE;
    return -1;
  case write_outcome::one_byte_short:
    return static_cast<int>(size) - 1;
  default:
    tell("%s", story_of_write(bytes).c_str());
    return static_cast<int>(size);
  }
}

int conn_close(net_connection* connection) {
  tell("closed\n");
  *connection = {-1, nullptr, nullptr};
  return 0;
}

int connect_with_keepalives(const addrinfo* /*address*/) {
  if (proxy.refuses || proxy.connections.size() < 2) return -1;
  tell("connected again\n");
  proxy.connections.erase(proxy.connections.begin());
  return 4711;
}

int ssl_connect(net_connection* connection, const char* hostname) {
  CHECK(connection->socket == 4711 && connection->ssl == nullptr);
  tell("TLS for '%s'\n", hostname);
  return proxy.tls_fails ? -1 : 0;
}

int resolve_ipv4(const char* host, in_addr* address, int* resolver_error) {
  tell("resolved '%s'\n", host);
  if (!proxy.resolves) {
    *resolver_error = HOST_NOT_FOUND;
    return -1;
  }
  *address = proxy.address;
  return 0;
}
