#include "link.h"

#include "peer.h"

#include <algorithm>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// The fastest that both ends have, on a machine with instructions for AES.
constexpr char cipher[] = "ECDHE-ECDSA-AES128-GCM-SHA256";

SSL_CTX* make_context(const char* certificate, const char* key) {
  SSL_CTX* context = SSL_CTX_new(TLS_server_method());
  require(context != nullptr, "SSL_CTX_new");
  require(SSL_CTX_use_certificate_chain_file(context, certificate) == 1, "certificate");
  require(SSL_CTX_use_PrivateKey_file(context, key, SSL_FILETYPE_PEM) == 1, "key");
  require(SSL_CTX_set_max_proto_version(context, TLS1_2_VERSION) == 1, "TLS 1.2");
  require(SSL_CTX_set_cipher_list(context, cipher) == 1, "cipher");
  return context;
}

size_t receive(broker_link* link, void* bytes, size_t size) {
  const auto limit = static_cast<int>(std::min<size_t>(size, 1 << 20));
  const ssize_t count =
      link->ssl != nullptr ? SSL_read(link->ssl, bytes, limit) : read(link->connection, bytes, size);
  return count > 0 ? static_cast<size_t>(count) : 0;
}

void receive_exactly(broker_link* link, unsigned char* bytes, size_t size) {
  for (size_t received = 0; received < size;) {
    const size_t count = receive(link, bytes + received, size - received);
    require(count > 0, "the peer has left");
    received += count;
  }
}

void send_raw(int connection, std::span<const unsigned char> bytes) {
  while (!bytes.empty()) {
    const ssize_t count = send(connection, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    require(count > 0, "the peer does not take it");
    bytes = bytes.subspan(static_cast<size_t>(count));
  }
}

}  // namespace

uint16_t link_listen(broker_link* link, const char* certificate, const char* key) {
  if (certificate != nullptr) link->context = make_context(certificate, key);
  link->listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  require(bind(link->listener, reinterpret_cast<sockaddr*>(&address), size) == 0, "bind");
  require(listen(link->listener, 1) == 0, "listen");
  require(getsockname(link->listener, reinterpret_cast<sockaddr*>(&address), &size) == 0, "getsockname");
  return ntohs(address.sin_port);
}

std::string link_accept(broker_link* link) {
  link->connection = accept4(link->listener, nullptr, nullptr, SOCK_CLOEXEC);
  require(link->connection >= 0, "accept");
  const int on = 1;
  setsockopt(link->connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  if (link->context != nullptr) {
    link->ssl = SSL_new(link->context);
    require(SSL_set_fd(link->ssl, link->connection) == 1, "SSL_set_fd");
    require(SSL_accept(link->ssl) == 1, "TLS handshake");
  }
  unsigned char packet[4 + 65535];  // type, chunk count, length; then so many bytes
  receive_exactly(link, packet, 4);
  receive_exactly(link, packet + 4, static_cast<size_t>(packet[2] << 8 | packet[3]));
  return link->ssl != nullptr ? SSL_get_cipher_name(link->ssl) : "plain";
}

void link_send(broker_link* link, std::span<const unsigned char> bytes) {
  if (link->ssl == nullptr) return send_raw(link->connection, bytes);
  const auto size = static_cast<int>(bytes.size());
  require(SSL_write(link->ssl, bytes.data(), size) == size, "the peer does not take it");
}

void link_seal(broker_link* link, std::span<const unsigned char> bytes, std::vector<unsigned char>* sealed) {
  BIO* memory = BIO_new(BIO_s_mem());
  SSL_set0_wbio(link->ssl, memory);
  link_send(link, bytes);
  char* data = nullptr;
  const long size = BIO_get_mem_data(memory, &data);
  sealed->insert(sealed->end(), data, data + size);
}

void link_send_sealed(broker_link* link, std::span<const unsigned char> sealed) {
  send_raw(link->connection, sealed);
}

void link_finish(broker_link* link) {
  shutdown(link->connection, SHUT_WR);
  char byte = 0;
  while (read(link->connection, &byte, 1) > 0) {
  }
  SSL_free(link->ssl);
  link->ssl = nullptr;
  close(link->connection);
}
