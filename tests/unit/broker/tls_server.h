#pragma once

#include "certificates.h"
#include "peer.h"

#include <functional>
#include <openssl/ssl.h>
#include <thread>
#include <utility>

struct tls_server_plan {
  int min_version = TLS1_2_VERSION;
  int max_version = TLS1_3_VERSION;
  std::function<void(SSL*)> after_handshake = {};  ///< when it returns, the socket is closed without a word
};

/// One TLS handshake on a thread of its own, on the server's side.
class tls_server {
public:
  /// `open_socket` gives the connected socket; it runs on the server's thread.
  tls_server(const identity& server, std::function<fd_owner()> open_socket, tls_server_plan plan = {})
      : plan_{std::move(plan)}, context_{SSL_CTX_new(TLS_server_method())} {
    SSL_CTX_set_min_proto_version(context_.get(), plan_.min_version);
    SSL_CTX_set_max_proto_version(context_.get(), plan_.max_version);
    SSL_CTX_set_cipher_list(context_.get(), "ALL:@SECLEVEL=0");
    SSL_CTX_use_certificate(context_.get(), server.certificate.get());
    SSL_CTX_use_PrivateKey(context_.get(), server.key.get());
    thread_ = std::thread{[this, open = std::move(open_socket)] { serve(open()); }};
  }
  ~tls_server() { finish(); }
  tls_server(const tls_server&) = delete;
  tls_server& operator=(const tls_server&) = delete;

  void finish() {
    if (thread_.joinable()) thread_.join();
  }

  // After finish().
  bool accepted = false;
  std::string version;
  std::string cipher;
  bool server_name_sent = false;

private:
  void serve(fd_owner fd) {
    const std::unique_ptr<SSL, releaser<SSL_free>> ssl{SSL_new(context_.get())};
    SSL_set_fd(ssl.get(), fd.get());
    accepted = SSL_accept(ssl.get()) == 1;
    if (!accepted) return;
    version = SSL_get_version(ssl.get());
    cipher = SSL_get_cipher(ssl.get());
    server_name_sent = SSL_get_servername(ssl.get(), TLSEXT_NAMETYPE_host_name) != nullptr;
    if (plan_.after_handshake) plan_.after_handshake(ssl.get());
  }

  tls_server_plan plan_;
  std::unique_ptr<SSL_CTX, releaser<SSL_CTX_free>> context_;
  std::thread thread_;
};
