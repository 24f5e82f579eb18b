// What the libraries do by themselves when memory runs out: the agent has no part in it. It makes the agent's first
// uses of them, in their order: initialisation, a request, names that are and are not there.
//
// usage: libraries_only URL CA_FILE
#include <curl/curl.h>
#include <netdb.h>
#include <openssl/ssl.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>

static size_t swallow(char* data, size_t size, size_t count, void* user) {
  (void)data;
  (void)user;
  return size * count;
}

static void request(const char* url, const char* ca_file) {
  CURL* curl = curl_easy_init();
  if (curl == NULL) return;
  curl_easy_setopt(curl, CURLOPT_URL, url);
  curl_easy_setopt(curl, CURLOPT_CAINFO, ca_file);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, swallow);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT, 3L);
  curl_easy_perform(curl);
  curl_easy_cleanup(curl);
}

static void resolve(const char* host) {
  struct addrinfo hints = {.ai_socktype = SOCK_STREAM};
  struct addrinfo* found = NULL;
  if (getaddrinfo(host, "80", &hints, &found) == 0) freeaddrinfo(found);
  struct hostent entry;
  struct hostent* result = NULL;
  char buffer[1024];
  int error = 0;
  gethostbyname_r(host, &entry, buffer, sizeof buffer, &result, &error);
}

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  char too_long[71];
  memset(too_long, 'x', sizeof too_long - 1);
  too_long[sizeof too_long - 1] = '\0';

  OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, NULL);
  curl_global_init(CURL_GLOBAL_ALL);
  OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS, NULL);
  OPENSSL_init_ssl(0, NULL);
  for (int i = 0; i < 2; ++i) {
    request(argv[1], argv[2]);
  }
  resolve(too_long);
  resolve("localhost");
  puts("survived");
  return 0;
}
