#include "broker/ssl_routine.h"

#include "core/log.h"
#include "core/options.h"
#include "core/owned.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr char log_source[] = "ssl_routine";

using certificate_ptr = std::unique_ptr<X509, releaser<X509_free>>;

constexpr char cipher_list[] =
    "ECDHE-ECDSA-CHACHA20-POLY1305:ECDHE-RSA-CHACHA20-POLY1305:ECDHE-ECDSA-AES128-GCM-SHA256:"
    "ECDHE-RSA-AES128-GCM-SHA256:ECDHE-ECDSA-AES256-GCM-SHA384:ECDHE-RSA-AES256-GCM-SHA384:"
    "DHE-RSA-AES128-GCM-SHA256:DHE-RSA-AES256-GCM-SHA384:ECDHE-ECDSA-AES128-SHA256:"
    "ECDHE-RSA-AES128-SHA256:ECDHE-ECDSA-AES128-SHA:ECDHE-RSA-AES256-SHA384:ECDHE-RSA-AES128-SHA:"
    "ECDHE-ECDSA-AES256-SHA384:ECDHE-ECDSA-AES256-SHA:ECDHE-RSA-AES256-SHA:DHE-RSA-AES128-SHA256:"
    "DHE-RSA-AES128-SHA:DHE-RSA-AES256-SHA256:DHE-RSA-AES256-SHA:ECDHE-ECDSA-DES-CBC3-SHA:"
    "ECDHE-RSA-DES-CBC3-SHA:EDH-RSA-DES-CBC3-SHA:AES128-GCM-SHA256:AES256-GCM-SHA384:AES128-SHA256:"
    "AES256-SHA256:AES128-SHA:AES256-SHA:DES-CBC3-SHA:!DSS";

const char* text_or_null(const char* text) {
  return text != nullptr ? text : "(null)";
}

int openssl_size(size_t size) {
  return static_cast<int>(std::min(size, size_t{INT_MAX}));
}

// A context that speaks TLS 1.2 only, or null.
SSL_CTX* new_tls12_context() {
  std::unique_ptr<SSL_CTX, releaser<SSL_CTX_free>> context{SSL_CTX_new(TLS_client_method())};
  if (context == nullptr) return nullptr;
  if (SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION) != 1) return nullptr;
  if (SSL_CTX_set_max_proto_version(context.get(), TLS1_2_VERSION) != 1) return nullptr;
  return context.release();
}

// Makes context and session. On a failure what is there stays in the record, for ssl_release().
int make_tls_state(net_connection* connection) {
  connection->ssl_ctx = new_tls12_context();
  if (connection->ssl_ctx == nullptr) {
    log_error("Cannot create SSL context.\n");
    print_openssl_errors();
    return -1;
  }
  const char* file = options.ca_file;
  const char* path = options.ca_path;
  if ((file != nullptr || path != nullptr) &&
      SSL_CTX_load_verify_locations(connection->ssl_ctx, file, path) != 1) {
    log_error("Cannot load SSL certificate chain : %s. %s.\n", text_or_null(file), text_or_null(path));
    print_openssl_errors();
    return -1;
  }
  if (SSL_CTX_set_cipher_list(connection->ssl_ctx, cipher_list) != 1) {
    log_error("Cannot set SSL cipher suite.\n");
    print_openssl_errors();
    return -1;
  }
  connection->ssl = SSL_new(connection->ssl_ctx);
  if (connection->ssl == nullptr) {
    log_error("Cannot create SSL handle.\n");
    print_openssl_errors();
    ssl_release(connection);
    return -1;
  }
  return 0;
}

// The handshake, and the check of the peer's name.
int shake_hands(net_connection* connection, const char* hostname) {
  if (SSL_set_fd(connection->ssl, connection->socket) != 1) {
    log_error("Cannot set SSL fd.\n");
    print_openssl_errors();
    return -1;
  }
  SSL_CTX_set_default_verify_paths(connection->ssl_ctx);
  SSL_set_verify(connection->ssl, SSL_VERIFY_PEER, nullptr);
  ERR_clear_error();
  errno = 0;
  const int result = SSL_connect(connection->ssl);
  if (result != 1) {
    const int saved_errno = errno;
    const int code = SSL_get_error(connection->ssl, result);
    log_error("Could not connect to SSL server %d.\n", code);
    describe_ssl_error(code, saved_errno);
    print_openssl_errors();
    return -1;
  }
  const certificate_ptr certificate{SSL_get1_peer_certificate(connection->ssl)};
  if (certificate == nullptr) return -1;
  if (validate_hostname(hostname, certificate.get()) != 1) {
    log_error("Hostname validation failed.\n");
    return -1;
  }
  // From now on a peer that just closes has ended the stream like one that says so first. Nothing can be cut short
  // unseen: a packet is complete or it isn't.
  SSL_set_options(connection->ssl, SSL_OP_IGNORE_UNEXPECTED_EOF);
  return 0;
}

int read_plain(int socket, void* buffer, size_t size) {
  errno = 0;
  const int result = static_cast<int>(read(socket, buffer, std::min(size, size_t{INT_MAX})));
  return result < 0 && errno == EAGAIN ? 0 : result;
}

int read_tls(SSL* ssl, void* buffer, size_t size) {
  // Looking costs less than clearing what is nearly always clear.
  if (ERR_peek_error() != 0) ERR_clear_error();
  errno = 0;
  const int result = SSL_read(ssl, buffer, openssl_size(size));
  const int saved_errno = errno;
  if (result > 0) return result;
  if (result == 0) {
    log_status("SSL_read == 0 errno: '%s'.\n", std::strerror(saved_errno));
    // EAGAIN would mean "no data for now".
    errno = saved_errno != EAGAIN ? saved_errno : 0;
    return 0;
  }
  log_status("SSL_read < 0 errno: '%s'.\n", std::strerror(saved_errno));
  const int code = SSL_get_error(ssl, result);
  if (code == SSL_ERROR_WANT_READ) {
    errno = EAGAIN;
    return 0;
  }
  describe_ssl_error(code, saved_errno);
  log_warning("openssl read result: '%d', error: '%d', errno: '%d'.\n", result, code, saved_errno);
  print_openssl_errors();
  errno = saved_errno;
  return result;
}

int write_once(net_connection* connection, const void* buffer, size_t size) {
  if (connection->ssl == nullptr) {
    return static_cast<int>(send(connection->socket, buffer, std::min(size, size_t{INT_MAX}), MSG_NOSIGNAL));
  }
  ERR_clear_error();
  return SSL_write(connection->ssl, buffer, openssl_size(size));
}

}  // namespace

int ssl_connect(net_connection* connection, const char* hostname) {
  if (connection == nullptr || connection->socket == 0) return -1;
  connection->ssl = nullptr;
  connection->ssl_ctx = nullptr;
  if (make_tls_state(connection) != 0) return -1;
  if (shake_hands(connection, hostname) == 0) return 0;
  ssl_release(connection);
  return -1;
}

void ssl_release(net_connection* connection) {
  if (connection->ssl != nullptr) {
    SSL_shutdown(connection->ssl);
    SSL_free(std::exchange(connection->ssl, nullptr));
    ERR_clear_error();  // a shutdown that came too early is no news for the next attempt's log
  }
  if (connection->ssl_ctx != nullptr) SSL_CTX_free(std::exchange(connection->ssl_ctx, nullptr));
}

int conn_read(net_connection* connection, void* buffer, size_t size) {
  if (connection == nullptr) return -1;
  return connection->ssl != nullptr ? read_tls(connection->ssl, buffer, size)
                                    : read_plain(connection->socket, buffer, size);
}

int conn_write(net_connection* connection, const void* buffer, size_t size) {
  if (connection == nullptr) return -1;
  const int result = write_once(connection, buffer, size);
  const int saved_errno = errno;
  if (result < 0 || static_cast<size_t>(result) != size) {
    log_error("Wroted less then needed: %d\n", result);
    if (connection->ssl != nullptr) print_openssl_errors();
  }
  errno = saved_errno;
  return result;
}

int conn_pending(net_connection* connection) {
  return connection->ssl != nullptr ? SSL_pending(connection->ssl) : 0;
}

void conn_read_ahead(net_connection* connection) {
  if (connection->ssl != nullptr) SSL_set_read_ahead(connection->ssl, 1);
}

bool conn_buffered(net_connection* connection) {
  return connection->ssl != nullptr && SSL_has_pending(connection->ssl) == 1;
}

int conn_close(net_connection* connection) {
  if (connection == nullptr) return -1;
  ssl_release(connection);
  const int socket = std::exchange(connection->socket, -1);
  if (socket != -1) close(socket);
  return 0;
}

int set_nonblocking(net_connection* connection) {
  const int flags = std::max(fcntl(connection->socket, F_GETFL), 0);
  const int result = fcntl(connection->socket, F_SETFL, flags | O_NONBLOCK);
  if (result < 0) log_debug("%s:%s:%d: error %d\n", log_source, "set_nonblocking", __LINE__, errno);
  return result;
}

void print_openssl_errors() {
  char text[1024];
  while (const unsigned long code = ERR_get_error()) {
    ERR_error_string_n(code, text, sizeof text);
    log_error("%s\n", text);
    log_status("openssl error: '%s'.\n", text);
  }
}

void describe_ssl_error(int code, int saved_errno) {
  const char* reason = std::strerror(saved_errno);
  switch (code) {
  case SSL_ERROR_NONE:
    log_status("openssl read error: 'SSL_ERROR_NONE', errno: '%s'.\n", reason);
    break;
  case SSL_ERROR_SSL:
    log_status("openssl read error: 'SSL_ERROR_SSL', errno: '%s'.\n", reason);
    break;
  case SSL_ERROR_WANT_X509_LOOKUP:
    log_status("openssl read error: 'SSL_ERROR_WANT_X509_LOOKUP', errno: '%s'.\n", reason);
    break;
  case SSL_ERROR_SYSCALL:
    log_status("openssl read error: 'SSL_ERROR_SYSCALL', errno: '%s'.\n", reason);
    break;
  case SSL_ERROR_ZERO_RETURN:
    log_status("openssl read error: 'SSL_ERROR_ZERO_RETURN', errno: '%s'.\n", reason);
    break;
  default:
    log_status("openssl read error: '%d', errno: '%s'.\n", code, reason);
  }
}
