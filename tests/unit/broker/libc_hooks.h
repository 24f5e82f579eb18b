#pragma once

#include <cstddef>
#include <netdb.h>

// Calls that this test program answers in place of the libraries, for failures that can't be had otherwise. Each
// hook counts for the thread that sets it, and only as long as the object lives.

/// getaddrinfo() gives this result and list.
struct fake_resolver {
  fake_resolver(int result, addrinfo* list);
  ~fake_resolver();
  fake_resolver(const fake_resolver&) = delete;
  fake_resolver& operator=(const fake_resolver&) = delete;
};

/// gethostbyname_r() wants a buffer of at least this size, and then finds 127.0.0.3.
struct resolver_that_needs {
  explicit resolver_that_needs(size_t buffer_size);
  ~resolver_that_needs();
  resolver_that_needs(const resolver_that_needs&) = delete;
  resolver_that_needs& operator=(const resolver_that_needs&) = delete;
};

/// The agent's own malloc() and realloc() refuse exactly this size.
struct failing_allocation {
  explicit failing_allocation(size_t size);
  ~failing_allocation();
  failing_allocation(const failing_allocation&) = delete;
  failing_allocation& operator=(const failing_allocation&) = delete;
};

/// The named call fails (or, for send, gives 0): "send", "setsockopt", "SSL_CTX_new",
/// "SSL_CTX_set_cipher_list", "SSL_new", "SSL_set_fd".
struct failing_call {
  explicit failing_call(const char* name);
  ~failing_call();
  failing_call(const failing_call&) = delete;
  failing_call& operator=(const failing_call&) = delete;
};

/// send() refuses packets of this type, on every thread: the peer is gone (EPIPE).
struct unsendable_packet {
  explicit unsendable_packet(unsigned char type);
  ~unsendable_packet();
  unsendable_packet(const unsendable_packet&) = delete;
  unsendable_packet& operator=(const unsendable_packet&) = delete;
};

/// The send() of this thread that is the n-th from now, counted from 1, gives this result; -1 is EPIPE.
struct later_send {
  later_send(int n, int result);
  ~later_send();
  later_send(const later_send&) = delete;
  later_send& operator=(const later_send&) = delete;
};
