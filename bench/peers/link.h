#pragma once

#include <cstddef>
#include <cstdint>
#include <openssl/types.h>
#include <span>
#include <string>
#include <vector>

// The broker's end of the connection: a listener, and the one agent (or floor) that is connected to it.

struct broker_link {
  int listener = -1;
  int connection = -1;
  SSL_CTX* context = nullptr;  // null: plain TCP
  SSL* ssl = nullptr;
};

/// Listens on a free port of 127.0.0.1, with TLS if a certificate is named. Its port.
uint16_t link_listen(broker_link* link, const char* certificate, const char* key);

/// Waits for the peer, shakes hands and reads its identity packet. What is spoken: "plain", or the cipher's name.
std::string link_accept(broker_link* link);

/// Sends everything.
void link_send(broker_link* link, std::span<const unsigned char> bytes);

/// For TLS only: adds to `sealed` what link_send() would put on the wire. From now on only link_send_sealed() may send.
void link_seal(broker_link* link, std::span<const unsigned char> bytes, std::vector<unsigned char>* sealed);
void link_send_sealed(broker_link* link, std::span<const unsigned char> sealed);

/// Says that there is no more, and waits until the peer, having read it all, closes.
void link_finish(broker_link* link);
