#include "broker/net_helper.h"
#include "broker/packet_format.h"
#include "broker/proxy_handshakes.h"
#include "broker/proxy_stream.h"
#include "broker/ssl_routine.h"
#include "core/config.h"
#include "core/log.h"
#include "core/owned.h"

#include <cerrno>
#include <cstring>

namespace {

constexpr char log_source[] = "proxy";

constexpr uint8_t socks4_version = 4;
constexpr uint8_t socks5_version = 5;
constexpr uint8_t connect_command = 1;
constexpr uint8_t ipv4_address_type = 1;
constexpr uint8_t socks4_granted = 90;
constexpr uint8_t password_negotiation_version = 1;
constexpr size_t longest_setting = 127;  // characters; what config_get_copy() gives at most

constexpr uint8_t method_none = 0;
constexpr uint8_t method_gssapi = 1;
constexpr uint8_t method_password = 2;

constexpr int socks4_request_size = 9;
constexpr int socks4_reply_size = 8;
constexpr int greeting_size = 4;
constexpr int method_reply_size = 2;
constexpr int password_reply_size = 2;
constexpr int socks5_request_size = 10;
constexpr int socks5_reply_size = 10;

struct reply_text {
  int code;
  const char* text;
};
constexpr reply_text socks5_replies[] = {
    {1, "General SOCKS server failure.\n"}, {2, "Connection not allowed by ruleset.\n"},
    {3, "Network unreachable.\n"},          {4, "Host unreachable.\n"},
    {5, "Connection refused.\n"},           {6, "TTL expired.\n"},
    {7, "Command not supported.\n"},        {8, "Address type not supported.\n"},
};

const char* socks5_reply_text(int code) {
  for (const reply_text& reply : socks5_replies) {
    if (reply.code == code) return reply.text;
  }
  return "SOCKS Error unassigned.\n";
}

int resolve_target(const char* host, in_addr* address) {
  int resolver_error = 0;
  if (resolve_ipv4(host, address, &resolver_error) == 0) return 0;
  log_warning("Can't resolve host '%s'. h_errno=%d - %s.\n", host, resolver_error, hstrerror(resolver_error));
  return -1;
}

// Reads until `size` bytes are there, the proxy closes, or reading fails; the number of bytes that came.
int read_reply(net_connection* connection, unsigned char* reply, size_t size) {
  size_t received = 0;
  while (received < size) {
    const int count = conn_read(connection, reply + received, size - received);
    if (count <= 0) break;
    received += static_cast<size_t>(count);
  }
  return static_cast<int>(received);
}

// The method that the proxy chooses for authentication, or -1.
int negotiate_method(net_connection* connection) {
  const unsigned char greeting[greeting_size] = {socks5_version, 2, method_none, method_password};
  const int sent = proxy_write(connection, greeting, sizeof greeting);
  if (sent < 0) {
    log_error("Cannot send SOCKS5 hello request, errno=%d - %s.\n", errno, std::strerror(errno));
    return -1;
  }
  if (sent != greeting_size) {
    log_error("Sended %d bytes in SOCKS5 hello request request instead of %d", sent, greeting_size);
    return -1;
  }
  unsigned char reply[method_reply_size];
  const int received = read_reply(connection, reply, sizeof reply);
  if (received != method_reply_size) {
    log_error("Readed %d bytes in SOCK5 hello request answer instead of %d", received, method_reply_size);
    return -1;
  }
  if (reply[0] != socks5_version) {
    log_error("SOCKS5 is not supported on the other side.\n");
    return -1;
  }
  return reply[1];
}

// A text behind its length, which is a byte: more than a setting can hold is never written.
unsigned char* put_short_text(unsigned char* position, const char* text) {
  const size_t length = strnlen(text, longest_setting);
  *position = static_cast<unsigned char>(length);
  return put_bytes(position + 1, text, length);
}

int send_password(net_connection* connection) {
  const c_string user_name{config_get_copy("q_qcloud_proxy_username")};
  const c_string password{config_get_copy("q_qcloud_proxy_password")};
  if (user_name == nullptr || password == nullptr) {
    log_error("Authentification is required. Username and/or password is not present.\n");
    return -1;
  }
  unsigned char request[1 + 2 * (1 + longest_setting)] = {password_negotiation_version};
  const unsigned char* end = put_short_text(put_short_text(request + 1, user_name.get()), password.get());
  const auto size = static_cast<size_t>(end - request);
  errno = 0;
  if (proxy_write(connection, request, size) != static_cast<int>(size)) {
    log_error("Cannot send SOCKS5 autorization request, errno=%d - %s.\n", errno, std::strerror(errno));
    return -1;
  }
  unsigned char reply[password_reply_size];
  const int received = read_reply(connection, reply, sizeof reply);
  if (received != password_reply_size) {
    log_error("Readed %d bytes in SOCK5 autorization request answer instead of %d.\n", received,
              password_reply_size);
    return -1;
  }
  if (reply[1] != 0) {
    log_error("Error during autorization : %d.\n", reply[1]);
    return -1;
  }
  log_debug("Registered on SOCKS5 server.\n");
  return 0;
}

int authenticate(net_connection* connection) {
  const int method = negotiate_method(connection);
  switch (method) {
  case -1:
    return -1;
  case method_none:
    return 0;
  case method_gssapi:
    log_error("GSSAPI autorization is not supported yet.\n");
    return -1;
  case method_password:
    return send_password(connection);
  default:
    log_error("Autorization method is not present.\n");
    return -1;
  }
}

int request_tunnel(net_connection* connection, const in_addr& address, int port) {
  unsigned char request[socks5_request_size];
  unsigned char* end = put_u8(request, socks5_version);
  end = put_u8(end, connect_command);
  end = put_u8(end, 0);
  end = put_u8(end, ipv4_address_type);
  end = put_bytes(end, &address, sizeof address);
  put_u16(end, static_cast<uint16_t>(port));
  const int sent = proxy_write(connection, request, sizeof request);
  if (sent < 0) {
    log_error("Cannot send SOCKS5 connection request, errno=%d - %s.\n", errno, std::strerror(errno));
    return -1;
  }
  if (sent != socks5_request_size) {
    // Intended: the line names the greeting's size.
    log_error("Sended %d bytes in SOCKS5 connection request request instead of %d.\n", sent, greeting_size);
    return -1;
  }
  unsigned char reply[socks5_reply_size];
  const int received = read_reply(connection, reply, sizeof reply);
  if (received != socks5_reply_size) {
    log_error("Readed %d bytes in SOCK5 connection request answer instead of %d.\n", received,
              socks5_reply_size);
    return -1;
  }
  if (reply[1] != 0) {
    log_error("Access denied answer=%d.\n", reply[1]);
    log_error("%s", socks5_reply_text(reply[1]));
    return -1;
  }
  return 0;
}

}  // namespace

int socks4_connect(net_connection* connection, const char* host, int port) {
  log_debug("Trying to connect to sock4.\n");
  in_addr address{};
  if (resolve_target(host, &address) != 0) return -1;
  unsigned char request[socks4_request_size];
  unsigned char* end = put_u8(request, socks4_version);
  end = put_u8(end, connect_command);
  end = put_u16(end, static_cast<uint16_t>(port));
  end = put_bytes(end, &address, sizeof address);
  put_u8(end, 0);  // the end of an empty user id
  const int sent = proxy_write(connection, request, sizeof request);
  if (sent < 0) {
    log_error("Cannot send CONNECT request, errno=%d - %s.\n", errno, std::strerror(errno));
    return -1;
  }
  if (sent != socks4_request_size) {
    log_error("Sended %d bytes in SOCK4 request instead of %d.\n", sent, socks4_request_size);
    return -1;
  }
  unsigned char reply[socks4_reply_size];
  const int received = read_reply(connection, reply, sizeof reply);
  if (received != socks4_reply_size) {
    log_error("Readed %d bytes in SOCK4 request answer instead of %d.\n", received, socks4_reply_size);
    return -1;
  }
  if (reply[1] != socks4_granted) {
    log_error("Could not connect to server using sock4 %d.\n", reply[1]);
    return -1;
  }
  log_debug("Connected to SOCKS4 proxy.\n");
  return 0;
}

int socks5_connect(net_connection* connection, const char* host, int port) {
  log_debug("Trying to connect to sock5.\n");
  in_addr address{};
  if (resolve_target(host, &address) != 0) return -1;
  if (authenticate(connection) != 0) return -1;
  return request_tunnel(connection, address, port);
}
