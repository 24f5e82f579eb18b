#include "broker/base64.h"
#include "broker/proxy_handshakes.h"
#include "broker/proxy_stream.h"
#include "broker/ssl_routine.h"
#include "core/config.h"
#include "core/log.h"
#include "core/owned.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

constexpr char log_source[] = "proxy";

constexpr size_t chunk_size = 256;
constexpr size_t max_answer_size = 1024 * 1024;
constexpr std::string_view header_end = "\r\n\r\n";

// An answer as far as it has come, zero-terminated.
struct partial_answer {
  c_string text;
  size_t length = 0;
  size_t capacity = 0;

  [[nodiscard]] std::string_view bytes() const { return {text.get(), length}; }

  // At least doubles, so that a long answer is not copied for each of its chunks.
  void grow(size_t needed) {
    capacity = std::max(needed, 2 * capacity);
    void* grown = std::realloc(text.get(), capacity);
    if (grown == nullptr) allocation_failed(ALLOCATION("realloc().\n", 1));
    static_cast<void>(text.release());  // it is `grown` now
    text.reset(static_cast<char*>(grown));
  }

  void append(const char* chunk, size_t size) {
    if (length + size + 1 > capacity) grow(length + size + 1);
    std::memcpy(text.get() + length, chunk, size);
    length += size;
    text.get()[length] = '\0';
  }
};

// The size of the body that the header announces; false when it doesn't. Only these two spellings count.
bool find_content_length(const partial_answer& answer, size_t* length) {
  for (const std::string_view name : {"Content-Length:", "CONTENT-LENGTH:"}) {
    const size_t position = answer.bytes().find(name);
    if (position == std::string_view::npos) continue;
    const long number = std::strtol(answer.text.get() + position + name.size(), nullptr, 10);
    *length = static_cast<size_t>(std::clamp(number, 0L, long{INT_MAX}));
    return true;
  }
  return false;
}

enum class progress { header_incomplete, complete, body_expected };

// Looks for the end of the header in what came after the first `seen` bytes. When a body is to follow, sets
// `*expected` to the length of the whole answer.
progress examine_header(const partial_answer& answer, size_t seen, size_t* expected) {
  const size_t from = seen - std::min(seen, header_end.size() - 1);
  const size_t end = answer.bytes().find(header_end, from);
  if (end == std::string_view::npos) return progress::header_incomplete;
  log_debug("Found header end");
  size_t body_length = 0;
  if (!find_content_length(answer, &body_length)) return progress::complete;
  log_debug("Found content lenght.");
  *expected = end + header_end.size() + body_length;
  return progress::body_expected;
}

bool contains_both(const char* answer, const char* number, const char* reason) {
  return std::strstr(answer, number) != nullptr && std::strstr(answer, reason) != nullptr;
}

bool says_connected(const char* answer) {
  return contains_both(answer, "200", "Connection established");
}

bool demands_credentials(const char* answer) {
  return contains_both(answer, "407", "Proxy Authentication Required");
}

// Only the first line that names authentication methods counts.
bool offers_basic(const char* answer) {
  const char* methods = std::strstr(answer, "Proxy-Authenticate:");
  if (methods == nullptr) {
    log_error("Cannot find proxy auth method.\n");
    return false;
  }
  const std::string_view line{methods, std::strcspn(methods, "\r\n")};
  if (line.find("Basic") == std::string_view::npos) {
    log_error("Could not find appropriate method to authentificate on proxy.\n");
    return false;
  }
  log_info("found basic authentification.\n");
  return true;
}

// A cleared buffer for a request of `length` bytes. Lengths are those of a request with a five-digit port: behind a
// shorter port, zero bytes go out.
c_string cleared_request(size_t length) {
  auto* text = static_cast<char*>(must_allocate(length + 1, ALLOCATION("malloc().\n", 1)));
  std::memset(text, 0, length + 1);
  return c_string{text};
}

// Null when the request can't be sent or has no answer.
c_string send_http_request(net_connection* connection, const char* request, size_t length) {
  errno = 0;
  if (proxy_write(connection, request, length) != static_cast<int>(length)) {
    log_error("Cannot send request to http, errno=%d - %s.\n", errno, std::strerror(errno));
    return nullptr;
  }
  log_debug("Sending request : %s", request);
  return c_string{read_http_answer(connection)};
}

// A fresh connection to the proxy in the place of the present one, as a proxy may end a connection after its 407.
int connect_again(net_connection* connection, const char* host, const addrinfo* proxy_address) {
  const bool had_tls = connection->ssl != nullptr;
  conn_close(connection);
  connection->socket = connect_with_keepalives(proxy_address);
  if (connection->socket == -1) {
    log_error("cannot open socket for auth to proxy.");
    return -1;
  }
  // Intended: the proxy's certificate has to name the broker.
  return had_tls ? ssl_connect(connection, host) : 0;
}

int try_again_with_credentials(net_connection* connection, const char* host, int port,
                               const addrinfo* proxy_address) {
  if (connect_again(connection, host, proxy_address) != 0) return -1;
  const c_string user_name{config_get_copy("q_qcloud_proxy_username")};
  const c_string password{config_get_copy("q_qcloud_proxy_password")};
  if (user_name == nullptr || password == nullptr) return -1;
  if (http_proxy_connect_with_credentials(connection, host, port, user_name.get(), password.get()) != 0) {
    log_error("Cannot connect to server using proxy.\n");
    return -1;
  }
  return 0;
}

}  // namespace

char* read_http_answer(net_connection* connection) {
  partial_answer answer;
  size_t expected = 0;  // length of the whole answer; 0 while unknown
  while (true) {
    char chunk[chunk_size];
    const int count = conn_read(connection, chunk, sizeof chunk);
    if (count < 0) {
      log_error("Read, errno=%d - %s.\n", errno, std::strerror(errno));
      return nullptr;
    }
    if (count == 0) {
      log_error("Connection closed. \n");
      return nullptr;
    }
    log_debug("readed %d bytes from http answer.\n", count);
    const size_t seen = answer.length;
    answer.append(chunk, static_cast<size_t>(count));
    if (answer.length > max_answer_size) return nullptr;
    if (expected == 0 && examine_header(answer, seen, &expected) == progress::complete) break;
    if (expected != 0 && answer.length >= expected) break;
  }
  return answer.text.release();
}

int http_proxy_connect_with_credentials(net_connection* connection, const char* host, int port,
                                        const char* user_name, const char* password) {
  const size_t text_length = std::strlen(user_name) + 1 + std::strlen(password);
  const c_string text{static_cast<char*>(must_allocate(text_length + 1, ALLOCATION("malloc().\n", 1)))};
  std::snprintf(text.get(), text_length + 1, "%s:%s", user_name, password);
  const c_string credentials{base64_encode(text.get(), text_length)};
  const size_t length = 2 * std::strlen(host) + std::strlen(credentials.get()) + 95;
  const c_string request = cleared_request(length);
  // Intended: the blank between the credentials and the end of their line.
  std::snprintf(request.get(), length + 1,
                "CONNECT %s:%d HTTP/1.1\r\nHost: %s\r\nProxy-Authorization: Basic %s \r\n"
                "Proxy-Connection: Keep-Alive\r\n\r\n",
                host, port, host, credentials.get());
  const c_string answer = send_http_request(connection, request.get(), length);
  if (answer == nullptr) {
    log_error("Cannot get answer.\n");
    return -1;
  }
  log_debug("Received after autorization: %s.\n", answer.get());
  if (says_connected(answer.get())) {
    log_info("Connected to server.\n");
    return 0;
  }
  if (demands_credentials(answer.get())) log_error("Could not connect to server with given credentials.\n");
  return -1;
}

int http_proxy_connect(net_connection* connection, const char* host, int port,
                       const addrinfo* proxy_address) {
  log_debug("Connecting to http proxy. \n");
  const size_t length = 2 * std::strlen(host) + 65;
  const c_string request = cleared_request(length);
  std::snprintf(request.get(), length + 1,
                "CONNECT %s:%d HTTP/1.1\r\nHost: %s\r\nProxy-Connection: Keep-Alive\r\n\r\n", host, port,
                host);
  const c_string answer = send_http_request(connection, request.get(), length);
  if (answer == nullptr) {
    log_error("Cannot get answer.\n");
    return -1;
  }
  log_debug("Received from proxy server: %s\n", answer.get());
  if (says_connected(answer.get())) {
    log_debug("Connected to server.\n");
    return 0;
  }
  if (!demands_credentials(answer.get())) return -1;
  log_info("Autentification required.\n");
  if (!offers_basic(answer.get())) return -1;
  return try_again_with_credentials(connection, host, port, proxy_address);
}
