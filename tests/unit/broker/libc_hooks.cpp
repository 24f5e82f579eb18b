#include "libc_hooks.h"

#include "broker/net_connection.h"
#include "real_function.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

namespace {

struct hook_state {
  const char* failing = nullptr;
  bool resolver_set = false;
  int resolver_result = 0;
  addrinfo* resolver_list = nullptr;
  int sends_left = 0;  // until the one that fails; 0: none does
  int send_result = 0;
  size_t resolver_needs = 0;
  size_t refused_size = 0;
};
thread_local constinit hook_state hooks;

constexpr int no_packet = -1;
constinit std::atomic<int> unsendable{no_packet};

bool fails(const char* name) {
  return hooks.failing != nullptr && std::strcmp(hooks.failing, name) == 0;
}

}  // namespace

fake_resolver::fake_resolver(int result, addrinfo* list) {
  hooks.resolver_set = true;
  hooks.resolver_result = result;
  hooks.resolver_list = list;
}

fake_resolver::~fake_resolver() {
  hooks.resolver_set = false;
}

failing_call::failing_call(const char* name) {
  hooks.failing = name;
}

failing_call::~failing_call() {
  hooks.failing = nullptr;
}

unsendable_packet::unsendable_packet(unsigned char type) {
  unsendable = type;
}

unsendable_packet::~unsendable_packet() {
  unsendable = no_packet;
}

later_send::later_send(int n, int result) {
  hooks.sends_left = n;
  hooks.send_result = result;
}

later_send::~later_send() {
  hooks.sends_left = 0;
}

resolver_that_needs::resolver_that_needs(size_t buffer_size) {
  hooks.resolver_needs = buffer_size;
}

resolver_that_needs::~resolver_that_needs() {
  hooks.resolver_needs = 0;
}

failing_allocation::failing_allocation(size_t size) {
  hooks.refused_size = size;
}

failing_allocation::~failing_allocation() {
  hooks.refused_size = 0;
}

// The linker sends the agent's calls of malloc and realloc here (--wrap).
extern "C" {

void* __real_malloc(size_t size);

void* __wrap_malloc(size_t size) {
  return hooks.refused_size != 0 && size == hooks.refused_size ? nullptr : __real_malloc(size);
}

void* __real_realloc(void* block, size_t size);

void* __wrap_realloc(void* block, size_t size) {
  return hooks.refused_size != 0 && size == hooks.refused_size ? nullptr : __real_realloc(block, size);
}
}

extern "C" {

int getaddrinfo(const char* name, const char* service, const addrinfo* hints, addrinfo** list) {
  if (!hooks.resolver_set)
    return real_function<decltype(getaddrinfo)>("getaddrinfo")(name, service, hints, list);
  *list = hooks.resolver_list;
  return hooks.resolver_result;
}

void freeaddrinfo(addrinfo* list) noexcept {
  if (!hooks.resolver_set) real_function<decltype(freeaddrinfo)>("freeaddrinfo")(list);
}

int gethostbyname_r(const char* name, hostent* entry, char* buffer, size_t size, hostent** found,
                    int* error) {
  if (hooks.resolver_needs == 0) {
    return real_function<decltype(gethostbyname_r)>("gethostbyname_r")(name, entry, buffer, size, found,
                                                                       error);
  }
  *found = nullptr;
  if (size < hooks.resolver_needs) {
    *error = NETDB_INTERNAL;
    return ERANGE;
  }
  static constinit in_addr address{};
  static char* addresses[] = {reinterpret_cast<char*>(&address), nullptr};
  address.s_addr = htonl(INADDR_LOOPBACK + 2);
  entry->h_addrtype = AF_INET;
  entry->h_length = sizeof address;
  entry->h_addr_list = addresses;
  *found = entry;
  return 0;
}

ssize_t send(int fd, const void* bytes, size_t size, int flags) {
  if (size > 0 && *static_cast<const unsigned char*>(bytes) == unsendable) {
    errno = EPIPE;
    return -1;
  }
  if (hooks.sends_left > 0 && --hooks.sends_left == 0) {
    if (hooks.send_result < 0) errno = EPIPE;
    return hooks.send_result;
  }
  return fails("send") ? 0 : real_function<decltype(send)>("send")(fd, bytes, size, flags);
}

int setsockopt(int fd, int level, int option, const void* value, socklen_t size) noexcept {
  if (!fails("setsockopt"))
    return real_function<decltype(setsockopt)>("setsockopt")(fd, level, option, value, size);
  errno = ENOPROTOOPT;
  return -1;
}

SSL_CTX* SSL_CTX_new(const SSL_METHOD* method) {
  return fails("SSL_CTX_new") ? nullptr : real_function<decltype(SSL_CTX_new)>("SSL_CTX_new")(method);
}

int SSL_CTX_set_cipher_list(SSL_CTX* context, const char* list) {
  if (fails("SSL_CTX_set_cipher_list")) return 0;
  return real_function<decltype(SSL_CTX_set_cipher_list)>("SSL_CTX_set_cipher_list")(context, list);
}

SSL* SSL_new(SSL_CTX* context) {
  return fails("SSL_new") ? nullptr : real_function<decltype(SSL_new)>("SSL_new")(context);
}

int SSL_set_fd(SSL* ssl, int fd) {
  return fails("SSL_set_fd") ? 0 : real_function<decltype(SSL_set_fd)>("SSL_set_fd")(ssl, fd);
}

}  // extern "C"
