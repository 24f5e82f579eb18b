#pragma once

#include "broker/net_connection.h"

#include <cstddef>
#include <openssl/types.h>

// TLS 1.2 on a connection (RFC 5246), the check of the peer's name, and reading and writing on a connection
// whether it is TLS or plain. One thread at a time uses a connection.

/// Starts TLS on the connected socket and checks the peer's certificate and name. 0, or -1 (logged, socket left
/// open). TLS state is made anew on every call: the record must hold none (ssl_release() it first). After a failure
/// the record may still hold a context, which ssl_release() or conn_close() frees.
[[nodiscard]] int ssl_connect(net_connection* connection, const char* hostname);

/// Shuts TLS down and frees session and context, if there are any.
void ssl_release(net_connection* connection);

/// Does the certificate name the host? 1 when a DNS subjectAltName, or without that extension the first commonName,
/// equals it (exact, letter case ignored, no wildcards); -1 otherwise and for a null argument.
[[nodiscard]] int validate_hostname(const char* hostname, X509* certificate);

/// Bytes read; 0 with errno EAGAIN when there is no data for now, 0 with another errno when the peer closed; a
/// negative value on error (-1 for a null connection).
int conn_read(net_connection* connection, void* buffer, size_t size);

/// One write of `size` bytes: the bytes written, or a negative value (-1 for a null connection). A short write is
/// logged and returned, not completed.
int conn_write(net_connection* connection, const void* buffer, size_t size);

/// Decrypted bytes that wait inside the TLS session; 0 for a plain connection. After conn_read_ahead() that isn't all:
/// ask conn_buffered().
int conn_pending(net_connection* connection);

/// From now on a TLS session takes from the socket what is there, not just the record that is being read: one
/// system call for a record instead of two. Whoever waits for the socket has to ask conn_buffered() first.
void conn_read_ahead(net_connection* connection);

/// True when bytes wait inside the TLS session, decrypted or not, be it only a part of a record: they are to be read
/// although the socket may stay silent.
bool conn_buffered(net_connection* connection);

/// Releases TLS and closes the socket. 0; -1 for a null connection. The record itself stays the caller's.
int conn_close(net_connection* connection);

/// Makes the socket non-blocking; the result of fcntl(2).
int set_nonblocking(net_connection* connection);

/// Logs and empties OpenSSL's error queue of the calling thread.
void print_openssl_errors();

/// Logs what an SSL_get_error() code means, with the text of `saved_errno`.
void describe_ssl_error(int code, int saved_errno);
