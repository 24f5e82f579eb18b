// The floor under receiving over TLS: connect as the agent does, then read into a buffer of the same size until the
// broker ends the stream. Nothing is looked at; one blocking call after another.
//
// usage: floor_tls PORT CA_FILE BUFFER_SIZE [ahead]      prints the nanoseconds of processor time that reading took

#include "path_floor.h"

#include <arpa/inet.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

static SSL* connect_tls(uint16_t port, const char* ca_file, int read_ahead) {
  SSL_CTX* context = SSL_CTX_new(TLS_client_method());
  require(context != NULL, "SSL_CTX_new");
  require(SSL_CTX_set_max_proto_version(context, TLS1_2_VERSION) == 1, "TLS 1.2");
  require(SSL_CTX_load_verify_locations(context, ca_file, NULL) == 1, "CA file");
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER, NULL);
  SSL_CTX_set_read_ahead(context, read_ahead);
  struct sockaddr_in address = {.sin_family = AF_INET, .sin_port = htons(port)};
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  require(connect(fd, (const struct sockaddr*)&address, sizeof address) == 0, "connect");
  SSL* ssl = SSL_new(context);
  require(SSL_set_fd(ssl, fd) == 1 && SSL_connect(ssl) == 1, "TLS handshake");
  return ssl;
}

int main(int argc, char** argv) {
  static const unsigned char identity[] = {1, 1, 0, 5, 'f', 'l', 'o', 'o', 'r'};
  require(argc == 4 || (argc == 5 && strcmp(argv[4], "ahead") == 0), "usage");
  const int size = atoi(argv[3]);
  unsigned char* buffer = malloc((size_t)size);
  require(buffer != NULL, "memory");
  SSL* ssl = connect_tls((uint16_t)atoi(argv[1]), argv[2], argc == 5);
  require(SSL_write(ssl, identity, sizeof identity) == (int)sizeof identity, "identity");

  const int64_t before = clock_ns(CLOCK_PROCESS_CPUTIME_ID);
  while (SSL_read(ssl, buffer, size) > 0) {
  }
  printf("%lld\n", (long long)(clock_ns(CLOCK_PROCESS_CPUTIME_ID) - before));
  close(SSL_get_fd(ssl));
  return 0;
}
