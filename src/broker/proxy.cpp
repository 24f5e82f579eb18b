#include "broker/proxy.h"

#include "broker/proxy_handshakes.h"
#include "broker/proxy_stream.h"
#include "broker/ssl_routine.h"
#include "core/config.h"
#include "core/log.h"
#include "core/owned.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netdb.h>
#include <resolv.h>

namespace {

constexpr char log_source[] = "proxy";

constexpr char resolv_conf_path[] = "/etc/resolv.conf";
constexpr uint32_t no_proxy = 0;

using address_list = std::unique_ptr<addrinfo, releaser<freeaddrinfo>>;
using file_ptr = std::unique_ptr<FILE, releaser<fclose>>;
using resolver_state = std::unique_ptr<struct __res_state, releaser<res_nclose>>;

// Where the stream is to end.
struct broker_target {
  const char* host;
  int port;
  bool use_ssl;
};

// Asks the proxy at the other end of `connection` for a tunnel to the broker. -1 on failure. `proxy_address` serves
// for connecting again.
using handshake = int (*)(net_connection* connection, const char* host, int port,
                          const addrinfo* proxy_address);

template <auto connect>
int socks_handshake(net_connection* connection, const char* host, int port, const addrinfo*) {
  return connect(connection, host, port);
}

struct proxy_kind {
  uint32_t type;            // value of "q_qcloud_use_proxy"
  const char* tls_failure;  // null: no TLS to the proxy
  handshake open_tunnel;
  const char* failure;
};

constexpr proxy_kind proxy_kinds[] = {
    {1, nullptr, http_proxy_connect, "Cannot connect using HTTP proxy.\n"},
    {2, "Cannot create ssl connection to HTTPS proxy.\n", http_proxy_connect,
     "Cannot connect using HTTPS proxy.\n"},
    {3, nullptr, socks_handshake<socks4_connect>, "Cannot connect using SOCK4 proxy.\n"},
    {4, nullptr, socks_handshake<socks5_connect>, "Cannot connect using SOCK5 proxy.\n"},
};

const proxy_kind* find_proxy_kind(uint32_t type) {
  for (const proxy_kind& kind : proxy_kinds) {
    if (kind.type == type) return &kind;
  }
  return nullptr;
}

void log_name_servers() {
  struct __res_state storage {};
  if (res_ninit(&storage) != 0) return;
  const resolver_state state{&storage};
  log_debug("system has %d DNS servers\n", state->nscount);
  for (int i = 0; i < state->nscount; ++i) {
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &state->nsaddr_list[i].sin_addr, text, sizeof text);
    log_debug("system has following DNS %s\n", text);
  }
}

void log_resolv_conf() {
  const file_ptr file{std::fopen(resolv_conf_path, "rte")};
  if (file == nullptr) return;
  char line[1024];
  while (std::fgets(line, sizeof line, file.get()) != nullptr) {
    log_debug("resolv conf file has following values: '%s'\n", line);
  }
}

address_list resolve(const char* host, int port) {
  char port_text[6];
  std::snprintf(port_text, sizeof port_text, "%d", port);
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int result = getaddrinfo(host, port_text, &hints, &found);
  if (result != 0) {
    log_warning("Can't resolve host '%s'. getaddrinfo returned %d - %s.\n", host, result,
                gai_strerror(result));
    log_name_servers();
    log_resolv_conf();
    return nullptr;
  }
  if (found == nullptr) log_error("Cannot find address to which we should connect to.\n");
  return address_list{found};
}

address_list resolve_proxy() {
  const auto port = static_cast<uint16_t>(config_get_uint("q_qcloud_proxy_port", 0));
  if (port == 0) {
    log_error("Could not found proxy port. \n");
    return nullptr;
  }
  const c_string host{config_get_copy("q_qcloud_proxy_hostname")};
  if (host == nullptr) {
    log_error("Could not find proxy server address.\n");
    return nullptr;
  }
  return resolve(host.get(), port);
}

// The first IPv4 entry, or else the first one.
const addrinfo* choose_address(const addrinfo* list) {
  for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
    if (entry->ai_family == AF_INET) return entry;
  }
  return list;
}

void log_connect_failure(uint32_t proxy_type, const broker_target& target) {
  const int reason = errno;
  if (proxy_type == no_proxy) {
    log_warning("Can't connect to '%s':%d, errno=%d - %s.\n", target.host, target.port, reason,
                std::strerror(reason));
  } else {
    log_warning("Can't connect to proxy server, errno=%d - %s.\n", reason, std::strerror(reason));
  }
}

// The stream as it will be used: TLS to the broker, or a tunnel through the proxy.
int prepare_direct_stream(net_connection* connection, const broker_target& target) {
  if (!target.use_ssl) return 0;
  if (ssl_connect(connection, target.host) == 0) return 0;
  log_error("Cannot create ssl connection to broker.\n");
  return -1;
}

int prepare_tunnel(net_connection* connection, uint32_t proxy_type, const broker_target& target,
                   const addrinfo* proxy_address) {
  const proxy_kind* kind = find_proxy_kind(proxy_type);
  if (kind == nullptr) {
    log_error("Unrecognized proxy type");  // log readers match this text without a line end
    return -1;
  }
  // Intended: the proxy's certificate has to name the broker.
  if (kind->tls_failure != nullptr && ssl_connect(connection, target.host) != 0) {
    log_error("%s", kind->tls_failure);
    return -1;
  }
  if (kind->open_tunnel(connection, target.host, target.port, proxy_address) == -1) {
    log_error("%s", kind->failure);
    return -1;
  }
  return 0;
}

}  // namespace

void net_connection_deleter::operator()(net_connection* connection) const {
  std::free(connection);
}

net_connection_ptr open_broker_connection(const char* host, int port, bool use_ssl) {
  const broker_target target{host, port, use_ssl};
  const uint32_t proxy_type = config_get_uint("q_qcloud_use_proxy", no_proxy);
  const address_list addresses = proxy_type == no_proxy ? resolve(host, port) : resolve_proxy();
  if (addresses == nullptr) return nullptr;

  const addrinfo* address = choose_address(addresses.get());
  fd_owner socket{connect_with_keepalives(address)};
  if (!socket.valid()) {
    log_connect_failure(proxy_type, target);
    return nullptr;
  }

  net_connection_ptr connection{static_cast<net_connection*>(std::malloc(sizeof(net_connection)))};
  if (connection == nullptr) {
    log_error("malloc().\n");
    return nullptr;
  }
  *connection = {socket.release(), nullptr, nullptr};
  const int prepared = proxy_type == no_proxy ? prepare_direct_stream(connection.get(), target)
                                              : prepare_tunnel(connection.get(), proxy_type, target, address);
  if (prepared != 0) {
    conn_close(connection.get());
    return nullptr;
  }
  return connection;
}
