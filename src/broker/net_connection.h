#pragma once

#include <openssl/types.h>

/// One connection to the broker or to a proxy. The connection is TLS exactly while `ssl` is not null.
struct net_connection {
  int socket;        ///< -1 once closed
  SSL* ssl;          ///< owned; see ssl_release()
  SSL_CTX* ssl_ctx;  ///< owned; see ssl_release()
};
